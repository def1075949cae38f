#include "relay.h"

#include "support/packets.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace tarn::performance {
namespace {

using test::Bytes;

constexpr uint16_t kPort    = 1883;
constexpr int      kBacklog = 4096;
constexpr int      kEvents  = 512;

struct Client {
    int  fd;
    bool level5 = false, waits_for_room = false, listed = false; // listed: among those that have something to send
    std::vector<std::string> topics;
    Bytes                    rest, out;
};

struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

class Relay {
public:
    Relay();
    [[noreturn]] void run();

private:
    void accept_all();
    void serve(Client &client, uint32_t events);
    void read(Client &client);
    void take(Client &client, std::span<const uint8_t> packet);
    void connect(Client &client, std::span<const uint8_t> packet);
    void subscribe(Client &client, std::span<const uint8_t> packet);
    void pass_on(Client &client, std::span<const uint8_t> packet);
    void answer(Client &client, uint8_t first, const uint8_t *id);
    void queue(Client &client, std::span<const uint8_t> bytes);
    void flush(Client &client);
    void flush_all();
    void remove(Client &client);

    int                                                                               listener_, epoll_;
    std::vector<uint8_t>                                                              buffer_;
    std::vector<Client *>                                                             to_flush_;
    std::unordered_map<std::string, std::vector<Client *>, TextHash, std::equal_to<>> subscribers_;
};

Relay::Relay()
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)), epoll_(epoll_create1(EPOLL_CLOEXEC)),
      buffer_(256 * 1024)
{
    const int   on = 1;
    sockaddr_in address{};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(listener_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // what it accepts inherits this
    epoll_event event{.events = EPOLLIN, .data = {.ptr = nullptr}};
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, kBacklog) != 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &event) != 0) {
        perror("relay");
        exit(1);
    }
}

void Relay::run()
{
    epoll_event events[kEvents];
    for (;;) {
        const int count = epoll_wait(epoll_, events, kEvents, -1);
        for (int i = 0; i < count; ++i) {
            if (Client *const client = static_cast<Client *>(events[i].data.ptr))
                serve(*client, events[i].events);
            else
                accept_all();
        }
        flush_all();
    }
}

void Relay::accept_all()
{
    for (int fd; (fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
        Client *const client = new Client{.fd = fd, .topics = {}, .rest = {}, .out = {}};
        epoll_event   event{.events = EPOLLIN | EPOLLOUT | EPOLLET, .data = {.ptr = client}};
        epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
    }
}

void Relay::serve(Client &client, uint32_t events)
{
    if (events & EPOLLOUT && client.waits_for_room)
        flush(client);
    read(client);
}

void Relay::read(Client &client)
{
    for (;;) {
        const size_t before = client.rest.size(), room = buffer_.size() - before;
        std::copy(client.rest.begin(), client.rest.end(), buffer_.begin());
        const ssize_t count = recv(client.fd, buffer_.data() + before, room, 0);
        if (count <= 0) {
            if (count == 0 || errno != EAGAIN)
                remove(client);
            return;
        }
        const size_t end = before + static_cast<size_t>(count);
        size_t       at  = 0;
        for (size_t size; (size = test::packet_size(buffer_.data() + at, end - at)) > 0; at += size)
            take(client, {buffer_.data() + at, size});
        client.rest.assign(buffer_.data() + at, buffer_.data() + end);
        if (static_cast<size_t>(count) < room)
            return;
    }
}

void Relay::take(Client &client, std::span<const uint8_t> packet)
{
    switch (packet[0] >> 4) {
    case 1:
        return connect(client, packet);
    case 3:
        return pass_on(client, packet);
    case 5: // PUBREC of a subscriber
        return answer(client, 0x62, &packet[2]);
    case 6: // PUBREL of a publisher
        return answer(client, 0x70, &packet[2]);
    case 8:
        return subscribe(client, packet);
    case 12:
        return queue(client, std::array<uint8_t, 2>{0xD0, 0});
    default:
        return;
    }
}

void Relay::connect(Client &client, std::span<const uint8_t> packet)
{
    client.level5 = packet[8] == 5; // lengths of packet and name, name, level
    if (client.level5)
        queue(client, std::array<uint8_t, 5>{0x20, 3, 0, 0, 0});
    else
        queue(client, std::array<uint8_t, 4>{0x20, 2, 0, 0});
}

// Of one filter: 82 length, identifier, [no properties], topic, QoS. Fewer than 128 bytes.
void Relay::subscribe(Client &client, std::span<const uint8_t> packet)
{
    const size_t at     = client.level5 ? 5 : 4;
    const size_t length = size_t{packet[at]} << 8 | packet[at + 1];
    client.topics.emplace_back(reinterpret_cast<const char *>(&packet[at + 2]), length);
    subscribers_[client.topics.back()].push_back(&client);
    if (client.level5)
        queue(client, std::array<uint8_t, 6>{0x90, 4, packet[2], packet[3], 0, packet.back()});
    else
        queue(client, std::array<uint8_t, 5>{0x90, 3, packet[2], packet[3], packet.back()});
}

// As it came, its identifier too: a subscriber hears one publisher here.
void Relay::pass_on(Client &client, std::span<const uint8_t> packet)
{
    const unsigned         qos    = packet[0] >> 1 & 3;
    const size_t           at     = packet[1] < 0x80 ? 2 : 3;
    const size_t           length = size_t{packet[at]} << 8 | packet[at + 1];
    const std::string_view topic(reinterpret_cast<const char *>(&packet[at + 2]), length);
    if (qos > 0)
        answer(client, qos == 1 ? 0x40 : 0x50, &packet[at + 2 + length]);
    if (const auto found = subscribers_.find(topic); found != subscribers_.end())
        for (Client *const subscriber : found->second)
            queue(*subscriber, packet);
}

void Relay::answer(Client &client, uint8_t first, const uint8_t *id)
{
    queue(client, std::array<uint8_t, 4>{first, 2, id[0], id[1]});
}

void Relay::queue(Client &client, std::span<const uint8_t> bytes)
{
    client.out.insert(client.out.end(), bytes.begin(), bytes.end());
    if (!client.listed)
        to_flush_.push_back(&client);
    client.listed = true;
}

void Relay::flush_all()
{
    for (Client *const client : to_flush_) {
        client->listed = false;
        if (!client->waits_for_room)
            flush(*client);
    }
    to_flush_.clear();
}

void Relay::flush(Client &client)
{
    const ssize_t sent = send(client.fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
    if (sent > 0)
        client.out.erase(client.out.begin(), client.out.begin() + sent);
    client.waits_for_room = !client.out.empty();
    if (client.out.empty() && client.out.capacity() <= 64)
        Bytes().swap(client.out); // an idle client has nothing here
}

void Relay::remove(Client &client)
{
    for (const std::string &topic : client.topics)
        std::erase(subscribers_[topic], &client);
    std::erase(to_flush_, &client);
    close(client.fd);
    delete &client;
}

} // namespace

void run_relay()
{
    Relay().run();
}

} // namespace tarn::performance
