#include "message_loop.h"

#include "packets.h"
#include "support/timing.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace tarn::test {
namespace {

// The head of every payload: a mark that no decoder takes for a property length, then the number and the time.
struct Stamp {
    uint32_t mark = 0xFFFFFFFF;
    uint32_t number;
    double   sent_at_s;
};
static_assert(sizeof(Stamp) == 16);

class Link {
public:
    Link() = default;
    ~Link()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Link(const Link &)            = delete;
    Link &operator=(const Link &) = delete;

    bool open(uint16_t port)
    {
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on            = 1;
        fd_                     = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            return false;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return fcntl(fd_, F_SETFL, O_NONBLOCK) == 0;
    }

    void queue(const Bytes &bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }

    bool flush()
    {
        if (out_.empty())
            return true;
        const ssize_t sent = send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (sent < 0)
            return errno == EAGAIN;
        out_.erase(out_.begin(), out_.begin() + sent);
        return true;
    }

    // Hands every whole packet that has come to the function; false when the connection is gone.
    bool read(auto &&take)
    {
        uint8_t chunk[65536];
        ssize_t count;
        while ((count = recv(fd_, chunk, sizeof chunk, 0)) > 0) {
            in_.insert(in_.end(), chunk, chunk + count);
            size_t at = 0;
            for (size_t size; (size = packet_size(in_.data() + at, in_.size() - at)) > 0; at += size)
                take(in_.data() + at, size);
            in_.erase(in_.begin(), in_.begin() + static_cast<long>(at));
        }
        return count < 0 && errno == EAGAIN;
    }

    pollfd wanted() const { return {fd_, static_cast<short>(out_.empty() ? POLLIN : POLLIN | POLLOUT), 0}; }

private:
    int   fd_ = -1;
    Bytes out_, in_;
};

constexpr double kGiveUp_s = 1.0 * kSlowdown;

struct Subscriber {
    Link     link;
    uint32_t next = 0; // number of the message that comes next
};

class Loop {
public:
    explicit Loop(const LoopOptions &options) : options_(options), subscribers_(options.subscribers) {}

    LoopResult run()
    {
        if (!set_up())
            result_.error = "a client could not connect or subscribe";
        else
            exchange();
        summarise();
        return result_;
    }

private:
    bool set_up()
    {
        bool ready = greet(publisher_, "loop-pub");
        for (size_t i = 0; ready && i < subscribers_.size(); ++i) {
            Link &link = subscribers_[i].link;
            ready      = greet(link, "loop-sub-" + std::to_string(i)) &&
                    ask(link, subscribe_packet(4, 1, options_.topic, options_.qos), 0x90);
        }
        return ready;
    }

    bool greet(Link &link, const std::string &id)
    {
        return link.open(options_.port) && ask(link, connect_packet(4, id), 0x20);
    }

    bool ask(Link &link, const Bytes &request, uint8_t answer)
    {
        bool answered = false;
        link.queue(request);
        return link.flush() && wait_until([&] {
                   link.read([&](const uint8_t *packet, size_t) { answered |= packet[0] == answer; });
                   return answered;
               });
    }

    void exchange()
    {
        const double start_s = moved_s_ = now_s();
        latencies_ms_.reserve(static_cast<size_t>(options_.messages) * options_.subscribers);
        while (arrived_ < options_.messages || acknowledged_ < (options_.qos ? options_.messages : 0)) {
            if (now_s() - start_s > options_.limit_s) {
                result_.error = "the time is up: " + std::to_string(arrived_) + " arrived, " +
                                std::to_string(acknowledged_) + " acknowledged of " + std::to_string(sent_) + " sent";
                break;
            }
            send_what_fits();
            if (!wait_and_read()) {
                result_.error = "a connection ended";
                break;
            }
            if (options_.qos && acknowledged_ == sent_ && now_s() - moved_s_ > kGiveUp_s)
                give_up();
        }
        result_.seconds = now_s() - start_s;
    }

    // What the publisher has an acknowledgement for and still does not come is lost, and the window must not wait for it.
    void give_up()
    {
        for (Subscriber &subscriber : subscribers_) {
            result_.lost += sent_ - subscriber.next;
            subscriber.next = sent_;
        }
        arrived_ = sent_;
    }

    void send_what_fits()
    {
        const uint32_t end = std::min(options_.messages, arrived_ + options_.window);
        for (; sent_ < end; ++sent_) {
            Stamp stamp{.number = sent_, .sent_at_s = now_s()};
            Bytes payload(options_.payload_bytes, 'x');
            memcpy(payload.data(), &stamp, sizeof stamp);
            publisher_.queue(
                publish_packet(4, options_.topic, payload, {.qos = options_.qos, .id = sent_ % 65535 + 1}));
        }
    }

    bool wait_and_read()
    {
        std::vector<pollfd> fds = {publisher_.wanted()};
        publisher_.flush();
        for (Subscriber &subscriber : subscribers_) {
            subscriber.link.flush();
            fds.push_back(subscriber.link.wanted());
        }
        fds[0] = publisher_.wanted();
        poll(fds.data(), fds.size(), 100);

        bool alive = publisher_.read([&](const uint8_t *packet, size_t) {
            acknowledged_ += packet[0] == 0x40;
            moved_s_ = now_s();
        });
        for (Subscriber &subscriber : subscribers_)
            alive &= subscriber.link.read([&](const uint8_t *packet, size_t size) { take(subscriber, packet, size); });
        arrived_ = std::min_element(subscribers_.begin(), subscribers_.end(), [](auto &a, auto &b) {
                       return a.next < b.next;
                   })->next;
        return alive;
    }

    // 3q LL 00 TT topic [ID ID] stamp ...
    void take(Subscriber &subscriber, const uint8_t *packet, size_t size)
    {
        if ((packet[0] & 0xF0) != 0x30)
            return;
        const unsigned qos   = packet[0] >> 1 & 3;
        const size_t   topic = size < 130 ? 2 : 3; // position of its length
        const size_t   id    = topic + 2 + options_.topic.size();
        Stamp          stamp;
        memcpy(&stamp, packet + id + (qos ? 2 : 0), sizeof stamp);
        if (qos == 1)
            subscriber.link.queue(ack_packet(4, 0x40, unsigned{packet[id]} << 8 | packet[id + 1]));
        if (stamp.number < subscriber.next) {
            ++result_.disordered;
            return;
        }
        moved_s_ = now_s();
        result_.lost += stamp.number - subscriber.next;
        subscriber.next = stamp.number + 1;
        ++result_.deliveries;
        latencies_ms_.push_back((moved_s_ - stamp.sent_at_s) * 1000);
    }

    void summarise()
    {
        for (const Subscriber &subscriber : subscribers_)
            result_.lost += options_.messages - subscriber.next;
        if (latencies_ms_.empty())
            return;
        std::sort(latencies_ms_.begin(), latencies_ms_.end());
        result_.p50_ms = latencies_ms_[latencies_ms_.size() / 2];
        result_.p99_ms = latencies_ms_[latencies_ms_.size() * 99 / 100];
        result_.max_ms = latencies_ms_.back();
    }

    const LoopOptions      &options_;
    Link                    publisher_;
    std::vector<Subscriber> subscribers_;
    uint32_t                sent_ = 0, arrived_ = 0, acknowledged_ = 0; // messages; arrived: everywhere
    double                  moved_s_ = 0;                               // when the last packet came
    std::vector<double>     latencies_ms_;
    LoopResult              result_;
};

} // namespace

LoopResult run_message_loop(const LoopOptions &options)
{
    return Loop(options).run();
}

} // namespace tarn::test
