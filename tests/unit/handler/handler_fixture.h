// handler_fixture.h - packet handling without threads: clients of the pool, each on a connection whose other end the test
// reads, and a host whose callbacks write down what they are told.
#ifndef TARN_TESTS_HANDLER_FIXTURE_H
#define TARN_TESTS_HANDLER_FIXTURE_H

#include "api/broker.h"
#include "base/clock.h"
#include "client/client_internal.h"
#include "codec/mqtt_codec.h"
#include "handler/handler_internal.h"
#include "handler/packet_handler.h"
#include "handler/shared_sub.h"
#include "net/netip_internal.h"
#include "persist/session_store.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/wire.h"

#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tarn::test {

// ---- saved sessions, as files

inline void store(const char *kind, const std::string &id, const std::string &text)
{
    std::ofstream(std::string(g_persist_root_path) + "/" + kind + "/" + id + ".json") << text;
}
inline std::string stored(const char *kind, const std::string &id)
{
    std::ifstream file(std::string(g_persist_root_path) + "/" + kind + "/" + id + ".json");
    return {std::istreambuf_iterator<char>(file), {}};
}
inline void make_directories()
{
    const std::string root = g_persist_root_path;
    for (const char *directory : {"", "/session", "/subscription", "/message"})
        mkdir((root + directory).c_str(), 0755);
}

// The host: callbacks that note what they were asked and told, and answer as they are set.
struct Host {
    broker_t                 broker{};
    std::vector<std::string> heard;
    bool                     accepts = true;
    std::string              denied; // topic or filter

    static Host *&current()
    {
        static Host *host = nullptr;
        return host;
    }
    Host() { current() = this; }
    ~Host() { current() = nullptr; }
    void hear_events()
    {
        broker.event_cb = [](broker_t *, uint32_t kind, const char *text) {
            current()->heard.push_back(std::to_string(kind) + " " + text);
        };
    }
    void ask_auth()
    {
        broker.auth_cb = [](broker_t *, const char *id, const char *user, const char *password) {
            current()->heard.push_back(std::string("auth ") + id + " " + user + " " + password);
            return current()->accepts;
        };
    }
    void ask_acl()
    {
        broker.acl_cb = [](broker_t *, const char *id, const char *topic, uint8_t action, mqtt_client_t *) {
            current()->heard.push_back(std::string("acl ") + id + " " + topic + " " + std::to_string(action));
            return current()->denied != topic;
        };
    }
    std::vector<std::string> take()
    {
        std::vector<std::string> all;
        all.swap(heard);
        return all;
    }
};

// Tables and client manager ready, no thread running, and lines printed only where a test captures them. At INFO,
// because some ways are taken at DEBUG only.
struct Handling {
    Host host;

    explicit Handling(int32_t max_clients = 100)
    {
        g_log_config.output = 0u;
        g_log_config.level  = uint32_t{AGENT_LOG_INFO};
        make_directories();
        sub_init();
        msgid_seed = 1;
        if (client_mgr_init(max_clients) != 0)
            abort();
        mqtt_stop_send_thread();
        qos_reliable_destroy(); // the scan thread
    }
    ~Handling()
    {
        const LogCapture quiet;
        client_mgr_deinit();
    }
    Handling(const Handling &)            = delete;
    Handling &operator=(const Handling &) = delete;
};

// ---- clients

// Nothing is logged meanwhile, also where a test captures lines.
class Muted {
public:
    Muted() : output_(peek(g_log_config.output)) { g_log_config.output = 0u; }
    ~Muted() { g_log_config.output = output_; }
    Muted(const Muted &)            = delete;
    Muted &operator=(const Muted &) = delete;

private:
    uint32_t output_;
};

// The packets of a stream; what is not a whole one comes last.
inline std::vector<Bytes> packets_in(const Bytes &stream)
{
    std::vector<Bytes> packets;
    for (auto at = stream.begin(); at != stream.end();) {
        auto   body = at + 1;
        size_t size = 0;
        for (unsigned shift = 0; body != stream.end(); shift += 7) {
            size |= size_t{*body & 0x7Fu} << shift;
            if (!(*body++ & 0x80))
                break;
        }
        const auto end = body + static_cast<ptrdiff_t>(std::min(size, static_cast<size_t>(stream.end() - body)));
        packets.emplace_back(at, end);
        at = end;
    }
    return packets;
}

// A connection of the table whose socket is one end of a pair; the other is read here.
class Line {
public:
    explicit Line(Handling &handling) : sink_{mqtt_netip_event_cb, &handling.host.broker}
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        end_ = pair[1];
        ScopedLock lock(g_netip_lock);
        connection_ = net::open_slot(NETIP_TCP, pair[0], {});
        const net::SlotPin accepted(connection_, net::SlotPin::Counted);
    }
    ~Line()
    {
        drop();
        close(end_);
    }
    Line(const Line &)            = delete;
    Line &operator=(const Line &) = delete;

    net::Connection connection() const { return connection_; }
    int             end() const { return end_; }
    // Null before the first packet, and once it is closed.
    mqtt_client_t *record() const
    {
        return net::is_current(connection_) ? client_find_by_handle(connection_.handle) : nullptr;
    }
    void send(const Bytes &packet) { sink_.data(connection_, packet.data(), static_cast<uint32_t>(packet.size())); }
    // The peer is gone, as the I/O thread finds it.
    void drop()
    {
        if (const net::SlotPin hold(connection_); hold)
            net::hang_up(hold, sink_);
    }
    // What has been sent so far. Sends what is queued first, as the send thread would.
    Bytes gets()
    {
        Bytes  all;
        size_t before;
        do { // a full ring is more than the socket takes at once
            before = all.size();
            if (mqtt_client_t *const client = record())
                client_send_flush(client);
            uint8_t part[4096];
            for (ssize_t got; (got = recv(end_, part, sizeof part, MSG_DONTWAIT)) > 0;)
                all.insert(all.end(), part, part + got);
        } while (all.size() > before);
        return all;
    }
    bool is_closed()
    {
        (void)gets();
        char byte;
        return recv(end_, &byte, 1, MSG_DONTWAIT) == 0;
    }

private:
    net::EventSink  sink_;
    net::Connection connection_;
    int             end_;
};

// A client as the network callback makes one for a connection's first packet, which has not come yet. With an id it has
// logged in already. It goes without a trace.
class Client {
public:
    explicit Client(Handling &handling, uint32_t version = 4, const char *id = "") : line_(handling)
    {
        const Muted           log;
        const net::Connection connection = line_.connection();
        char                  ip[NETIP_IP_CHARS + 1];
        EXPECT_TRUE(netip_get_client_ip(connection.handle, ip, sizeof ip));
        record_ = client::create_client(connection.handle, ip, netip_get_client_port(connection.handle),
                                        &handling.host.broker, connection)
                      .get();
        record_->codec.version = version;
        if (!*id)
            return;
        client_set_cid(record_, id);
        EXPECT_TRUE(mark_logged_in(*record_));
    }
    ~Client()
    {
        const Muted log;
        if (is_there()) {
            client::go_offline(*record_);
            pool_free(record_);
        }
        line_.drop();
    }
    Client(const Client &)            = delete;
    Client &operator=(const Client &) = delete;

    mqtt_client_t *operator->() { return record_; }
    mqtt_client_t &operator*() { return *record_; }
                   operator mqtt_client_t *() const { return record_; }

    int sends(const Bytes &packet)
    {
        return packet_dispatch(record_, packet.data(), static_cast<uint32_t>(packet.size()));
    }
    int sends(std::string_view text) { return sends(wire(text)); }

    // What it has got so far; by packet, or in one piece.
    std::vector<Bytes> gets() { return packets_in(line_.gets()); }
    Bytes              gets_whole() { return line_.gets(); }
    bool               is_closed() { return line_.is_closed(); }
    int                end() const { return line_.end(); } // to read what another thread sends

private:
    Line           line_;
    mqtt_client_t *record_;

    // The record, closed or not, is not free yet and nobody else's.
    bool is_there() const
    {
        return record_->used && client::side_of(record_)->generation == line_.connection().generation;
    }
};

// A packet from any record, also one of the pool.
inline int sends(mqtt_client_t *client, const Bytes &packet)
{
    return packet_dispatch(client, packet.data(), static_cast<uint32_t>(packet.size()));
}

// CONNECT with clean session (or start) 1 unless flags say otherwise.
inline Bytes connect_v4(std::string_view id, uint8_t flags = 0x02)
{
    return packet(0x10, wire("00 04 'MQTT' 04") + Bytes{flags} + wire("00 3C") + prefixed(id));
}
inline Bytes connect_v5(std::string_view id, const Bytes &properties = wire("27 00 00 10 00"), uint8_t flags = 0x02)
{
    return packet(0x10, wire("00 04 'MQTT' 05") + Bytes{flags} + wire("00 3C") +
                            Bytes{static_cast<uint8_t>(properties.size())} + properties + prefixed(id));
}

inline int pending_count()
{
    int count = 0;
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        ++count;
    return count;
}

// The identifier that the next delivery will have, without drawing it.
inline uint16_t next_id()
{
    unsigned       seed   = msgid_seed;
    const unsigned first  = static_cast<unsigned>(rand_r(&seed)) % 65533 + 1;
    const unsigned second = static_cast<unsigned>(rand_r(&seed)) % 65533 + 1;
    return static_cast<uint16_t>((second >> 8 & 0xFF) * 256 + (first & 0xFF));
}
// So many single draws from now, the seed.
inline uint32_t seed_after(int draws, unsigned seed = msgid_seed)
{
    while (draws-- > 0)
        (void)rand_r(&seed);
    return seed;
}
inline Bytes id_bytes(unsigned id)
{
    return u16(id);
}

// Lines but those with which the codec, the tables and the stores accompany what the handlers do.
inline std::vector<LogLine> handler_lines(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) {
        for (const char *foreign :
             {"var_header[",         "  var_header[", "payload_buf[",   "ack_buf[",
              "【QoS溯源5】",        "【QoS溯源6】",  "【QoS溯源7】",   "【QoS溯源3】MQTT 5.0 SUBACK",
              "[PUBLISH ENCODE]",    "[TRACE]",       "[DEBUG]",        "PUBLISH decode",
              "ACK encode",          "ACK decode",    "CONNACK encode", "========== ",
              "Property ",           "[persist]",     "[QoS",           "Set client ID",
              "client_set_keepalive"})
            if (line.text.rfind(foreign, 0) == 0)
                return true;
        return false;
    });
    return lines;
}

} // namespace tarn::test

#endif
