#include "peer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tarn::test {
namespace {

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int left_ms(double end_s)
{
    return std::max(0, static_cast<int>((end_s - now_s()) * 1000 + 0.999));
}

} // namespace

Peer::Peer(int fd, Where where) : fd_(fd)
{
    if (fd < 0)
        fail(where, std::string("no connection: ") + strerror(errno));
}

Peer Peer::open(int type, uint16_t port, Where where)
{
    const int         fd      = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return {-1, where};
    }
    const int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return {fd, where};
}

Peer Peer::tcp(uint16_t port, Where where)
{
    return open(SOCK_STREAM, port, where);
}
Peer Peer::udp(uint16_t port, Where where)
{
    return open(SOCK_DGRAM, port, where);
}

Peer::Peer(Peer &&other) noexcept
{
    *this = std::move(other);
}

Peer &Peer::operator=(Peer &&other) noexcept
{
    if (this == &other)
        return *this;
    hang_up();
    fd_      = std::exchange(other.fd_, -1);
    level_   = other.level_;
    next_id_ = other.next_id_;
    failed_  = other.failed_;
    rx_      = std::move(other.rx_);
    return *this;
}

Peer::~Peer()
{
    hang_up();
}

void Peer::hang_up()
{
    if (fd_ >= 0)
        close(std::exchange(fd_, -1));
}

void Peer::reset()
{
    const linger at_once = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    hang_up();
}

uint16_t Peer::local_port() const
{
    sockaddr_in address{};
    socklen_t   size = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

void Peer::fail(Where where, const std::string &what)
{
    if (!failed_)
        ADD_FAILURE_AT(where.file, where.line) << what;
    failed_ = true;
}

// A failing send shows at the next expectation: the broker may close while a test is still sending.
void Peer::send(const Bytes &bytes)
{
    for (size_t sent = 0; !failed_ && sent < bytes.size();) {
        const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;
        sent += static_cast<size_t>(count);
    }
}

Peer::Got Peer::receive(int limit_ms)
{
    pollfd readable = {fd_, POLLIN, 0};
    int    ready;
    do
        ready = poll(&readable, 1, limit_ms);
    while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return Got::Nothing;
    uint8_t       chunk[65536];
    const ssize_t count = recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == ECONNREFUSED)) // refused: a UDP socket without a reader
        return Got::Nothing;
    if (count <= 0)
        return Got::Closed;
    rx_.insert(rx_.end(), chunk, chunk + count);
    return Got::Data;
}

bool Peer::drain()
{
    for (;;) {
        switch (receive(0)) {
        case Got::Nothing:
            return true;
        case Got::Closed:
            return false;
        case Got::Data:
            break;
        }
    }
}

Captured Peer::expect(const Pattern &pattern, Where where)
{
    if (failed_)
        return {};
    const double end_s = now_s() + kLimit_ms / 1000.0;
    const char  *why   = "other bytes came";
    while (pattern.matches_front(rx_)) {
        if (rx_.size() >= pattern.size()) {
            Captured captured = pattern.capture(rx_);
            rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(pattern.size()));
            return captured;
        }
        const Got got = receive(left_ms(end_s));
        if (got == Got::Data)
            continue;
        why = got == Got::Closed ? "the connection ended" : "the time is up";
        if (got == Got::Closed || now_s() >= end_s)
            break;
    }
    fail(where, std::string(why) + "\n  expected " + pattern.text() + "\n  got      " + hex(rx_));
    return {};
}

void Peer::expect_nothing(int ms, Where where)
{
    if (failed_)
        return;
    const double end_s = now_s() + ms / 1000.0;
    while (rx_.empty() && now_s() < end_s)
        if (receive(left_ms(end_s)) == Got::Closed)
            return fail(where, "the connection ended, expected silence");
    if (!rx_.empty())
        fail(where, "expected silence\n  got      " + hex(rx_));
}

void Peer::expect_ignored(Where where)
{
    ping(where);
}

void Peer::expect_closed(Where where)
{
    if (failed_)
        return;
    const double end_s = now_s() + kLimit_ms / 1000.0;
    while (rx_.empty() && now_s() < end_s)
        if (receive(left_ms(end_s)) == Got::Closed)
            return;
    fail(where,
         rx_.empty() ? "the connection stays open" : "expected the end of the connection\n  got      " + hex(rx_));
}

Bytes Peer::read_packet(int limit_ms)
{
    const double end_s = now_s() + limit_ms / 1000.0;
    for (;;) {
        if (const size_t size = packet_size(rx_.data(), rx_.size())) {
            Bytes front(rx_.begin(), rx_.begin() + static_cast<long>(size));
            rx_.erase(rx_.begin(), rx_.begin() + static_cast<long>(size));
            return front;
        }
        if (failed_ || receive(left_ms(end_s)) == Got::Closed || now_s() >= end_s)
            return {};
    }
}

Peer &Peer::connect_v4(std::string_view client_id, const Connect &options, Where where)
{
    level_ = 4;
    send(connect_packet(4, client_id, options));
    expect(connack_packet(4, options), where);
    return *this;
}

Peer &Peer::connect_v5(std::string_view client_id, const Connect &options, Where where)
{
    level_ = 5;
    send(connect_packet(5, client_id, options));
    expect(connack_packet(5, options), where);
    return *this;
}

Peer &Peer::connect(unsigned level, std::string_view client_id, const Connect &options, Where where)
{
    return level == 5 ? connect_v5(client_id, options, where) : connect_v4(client_id, options, where);
}

Peer &Peer::subscribe(std::string_view filter, unsigned qos, Where where)
{
    const unsigned id = next_id_++;
    send(subscribe_packet(level_, id, filter, qos));
    const Bytes codes = {static_cast<uint8_t>(qos)};
    expect(packet(0x90, u16(id) + (level_ == 5 ? wire("00") : Bytes{}) + codes), where);
    return *this;
}

Peer &Peer::unsubscribe(std::string_view filter, Where where)
{
    const unsigned id = next_id_++;
    send(unsubscribe_packet(level_, id, filter));
    expect(ack_packet(level_, 0xB0, id), where);
    return *this;
}

void Peer::publish(std::string_view topic, std::string_view payload, const Publish &options, Where where)
{
    send(publish_packet(level_, topic, payload, options));
    if (options.qos == 1)
        expect(ack_packet(level_, 0x40, options.id), where);
    if (options.qos == 2) {
        expect(ack_packet(level_, 0x50, options.id), where);
        acknowledge(0x62, options.id);
        expect(ack_packet(level_, 0x70, options.id), where);
    }
}

unsigned Peer::expect_publish(std::string_view topic, std::string_view payload, const Publish &options, Where where)
{
    const Bytes whole   = publish_packet(level_, topic, payload, options);
    size_t      head    = whole.size() - payload.size() - (level_ == 5 ? 1 + options.properties.size() : 0);
    Pattern     pattern = Bytes(whole.begin(), whole.begin() + static_cast<long>(options.qos ? head - 2 : head));
    if (options.qos)
        pattern.append("....");
    pattern.append(Bytes(whole.begin() + static_cast<long>(head), whole.end()));
    return expect(pattern, where).id();
}

void Peer::ping(Where where)
{
    send("C0 00");
    expect("D0 00", where);
}

void Peer::disconnect(Where where)
{
    send(disconnect_packet(level_));
    expect_closed(where);
}

Peer come(unsigned level, const std::string &id, const Connect &options, Where where)
{
    Peer peer = Peer::tcp(1883, where);
    peer.connect(level, id, options, where);
    return peer;
}

Connect keep(unsigned level, bool present)
{
    return {.clean            = false,
            .session_expiry_s = level == 5 ? std::optional(3600u) : std::nullopt,
            .session_present  = present};
}

} // namespace tarn::test
