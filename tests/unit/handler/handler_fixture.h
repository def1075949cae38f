// handler_fixture.h - packet handling without a network: clients are records outside the pool, what is sent to them
// stays in their rings, and the host's callbacks write down what they are told.
#ifndef TARN_TESTS_HANDLER_FIXTURE_H
#define TARN_TESTS_HANDLER_FIXTURE_H

#include "api/broker.h"
#include "base/clock.h"
#include "client/client.hpp"
#include "codec/mqtt_codec.h"
#include "handler/handler_internal.h"
#include "handler/packet_handler.h"
#include "handler/shared_sub.h"
#include "net/netip.h"
#include "persist/session_store.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/send_ring.h"
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

// Tables ready, no thread running, and lines printed only where a test captures them. At INFO, because some ways are
// taken at DEBUG only.
struct Handling {
    Host host;

    Handling()
    {
        poke(g_log_config.output, 0u);
        poke(g_log_config.level, uint32_t{AGENT_LOG_INFO});
        make_directories();
        sub_init();
        msgid_seed = 1;
    }
};

// A client as the event bridge makes one, but outside the pool.
class Client {
public:
    explicit Client(Handling &handling, uint32_t version = 4, const char *id = "")
    {
        static uint32_t next_handle = 5000;
        mqtt_codec_ctx_init(&record_->codec);
        record_->codec.version   = version;
        record_->handle          = next_handle++; // no slot of the network layer
        record_->state           = CLIENT_CONNECTED;
        record_->used            = 1;
        record_->max_packet_size = 4096;
        record_->broker          = &handling.host.broker;
        if (*id)
            client_set_cid(record_.get(), id);
        if (*id)
            record_->state = CLIENT_LOGINED;
    }
    ~Client()
    {
        for (Shared<mqtt_client_t *> &entry : g_client_mgr.by_cid)
            if (entry == record_.get())
                entry = nullptr;
        qos_reliable_clean_client_packets(record_.get());
        free(record_->send_queue);
        free(record_->will_topic);
        free(record_->will_payload);
    }
    mqtt_client_t *operator->() { return record_.get(); }
    mqtt_client_t &operator*() { return *record_; }
                   operator mqtt_client_t *() const { return record_.get(); }

    int sends(const Bytes &packet)
    {
        return packet_dispatch(record_.get(), packet.data(), static_cast<uint32_t>(packet.size()));
    }
    int sends(std::string_view text) { return sends(wire(text)); }

    // What the broker queued for it so far, taken out.
    std::vector<Bytes> gets() { return take_queued(*record_); }

private:
    std::unique_ptr<mqtt_client_t> record_{new mqtt_client_t{}};
};

// The other end of a connection: gives a client a slot with a socket of its own.
class Socket {
public:
    explicit Socket(Client &client)
    {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        netip_conn_t &slot = g_netip_clients[client->handle];
        slot.handle        = client->handle;
        slot.type          = NETIP_TCP;
        slot.fd            = pair[0];
        slot.in_use        = 1;
        end_               = pair[1];
    }
    ~Socket() { close(end_); }
    Socket(const Socket &)            = delete;
    Socket &operator=(const Socket &) = delete;

    // What has arrived so far, in one piece.
    Bytes gets()
    {
        Bytes         bytes(4096);
        const ssize_t got = recv(end_, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    bool is_closed()
    {
        uint8_t byte;
        return recv(end_, &byte, 1, MSG_DONTWAIT) == 0;
    }

private:
    int end_;
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
