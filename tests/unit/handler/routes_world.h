// routes_world.h - one message on one route: the world it is sent into, and all that can be seen of it afterwards.
//
// The world is a handful of subscribers around the one that a row is about ("r"): before it one that gets the very
// same form of the message ("y"), behind it one of another form ("z"), and one that must never be meant ("n").
#ifndef TARN_TESTS_ROUTES_WORLD_H
#define TARN_TESTS_ROUTES_WORLD_H

#include "handler_fixture.h"

#include <array>
#include <cstdarg>
#include <deque>
#include <filesystem>
#include <map>

namespace tarn::test::routes {

using Strings = std::vector<std::string>;
using Lines   = std::vector<LogLine>;

enum class Presence { Online, Waiting, Unknown }; // waiting: a record that waits for its will
enum class Hindrance { None, RingFull, Limit4 };  // no place in the send ring; packets of 4 bytes at most

struct Member {
    std::string id;
    std::string filter;
    unsigned    granted;
    unsigned    level       = 4;
    Presence    presence    = Presence::Online;
    bool        remembered  = false; // subscribed without clean session
    Hindrance   hindrance   = Hindrance::None;
    bool        passed_over = false; // another member of its shared group gets the message
};

struct Sending {
    std::string topic = "t";
    Bytes       payload;
    unsigned    qos      = 0;
    bool        retain   = false;
    bool        dup      = false;
    uint32_t    expiry_s = 0;
};

struct Kept {
    std::string topic;
    unsigned    qos;
    uint32_t    expiry_s;
    Bytes       payload;
};

struct World {
    std::vector<Member> members; // in the order in which they subscribed
    Sending             message;
    unsigned            sender_level    = 4;
    bool                sender_is_clean = true;
    bool                sender_awaits_7 = false; // a delivery of its own, under the identifier it publishes with
    std::vector<Kept>   kept;                    // retained messages, in store order
    Hindrance           sender_hindrance = Hindrance::None;
    int32_t             turn             = 0; // of the shared groups
    int                 groups           = 0; // that the message meets, each of which takes a turn
    uint32_t            seed             = 1; // of the identifiers

    std::map<std::string, std::string> files; // "session/r.json" and its text
};

constexpr const char *kSender    = "p";
constexpr unsigned    kPublishId = 7; // the publisher's identifier
constexpr uint32_t    kNewHandle = 10000;

// ---- what is seen

struct Seen {
    int     result = 0;
    Strings packets;  // "r: 30 04 ...", by receiver, each in order
    Strings repeated; // the same, of the scan about a second later
    Strings counters; // "pkt_tx+1"
    Strings pending;  // the queue for reliable delivery, newest first
    Strings files;    // "message/r.json {...}"
    Strings records;  // "r.qos1_pending=258"
    Strings retained; // the store
    Strings told;     // to the host
    int     draws = 0;
    int     turns = 0;
    Lines   lines;
};

// Bytes in hex, long runs as "FFx2040".
inline std::string brief(const uint8_t *bytes, size_t count)
{
    std::string out;
    for (size_t at = 0, run; at < count; at += run) {
        for (run = 1; at + run < count && bytes[at + run] == bytes[at];)
            ++run;
        if (run < 8)
            run = 1;
        out += printed(run == 1 ? "%s%02X" : "%s%02Xx%zu", at ? " " : "", bytes[at], run);
    }
    return out;
}
inline std::string brief(const Bytes &bytes)
{
    return brief(bytes.data(), bytes.size());
}

inline std::string pending_text(const std::string &client, const qos_packet_t &entry)
{
    return printed(
        "%s id=%u qos=%u topic=%s payload=%s dup=%u tries=%u next=%ums state=%u expiry=%u age=%llu/%llums",
        client.c_str(), entry.msg_id, entry.qos, entry.topic, brief(entry.payload, entry.payload_len).c_str(),
        entry.dup, entry.retry_count, entry.retry_interval_ms, entry.qos2_state, entry.expiry_s,
        static_cast<unsigned long long>(entry.create_ms), static_cast<unsigned long long>(entry.last_send_ms));
}

inline std::string retained_text(const std::string &topic, unsigned qos, unsigned expiry_s, const Bytes &payload)
{
    return printed("%s qos=%u expiry=%u payload=%s", topic.c_str(), qos, expiry_s, brief(payload).c_str());
}

// Lines of the codec and looks into the tables are their own affair (tests/unit/codec, tests/unit/sub, tests/unit/persist) unless they are
// complaints; hex rows likewise.
inline bool is_foreign_trace(const LogLine &line)
{
    if (line.level != "DEBUG" && line.level != "INFO")
        return false;
    for (const char *of_codec :
         {"var_header[", "  var_header[", "payload_buf[", "ack_buf[", "【QoS溯源5】", "【QoS溯源6】", "【QoS溯源7】",
          "【QoS溯源3】MQTT 5.0 SUBACK", "[PUBLISH ENCODE]", "PUBLISH decode", "SUBSCRIBE decode", "ACK encode",
          "========== ", "CONNECT decode", "CONNACK encode", "Property "})
        if (line.text.starts_with(of_codec))
            return true;
    if (line.level != "DEBUG")
        return false;
    return line.text == "packet" || line.text.starts_with("[DEBUG]") || line.text.starts_with("[TRACE]") ||
           line.text.starts_with("[persist]") || line.text == "payload" ||
           (line.text.size() % 3 == 0 && line.text.find_first_not_of("0123456789ABCDEF ") == std::string::npos);
}

inline int rank(const LogLine &line)
{
    return line.level == "DEBUG" ? 0 : line.level == "INFO" ? 1 : line.level == "WARN" ? 2 : 3;
}

inline Lines from_level(Lines lines, uint32_t level)
{
    std::erase_if(lines, [&](const LogLine &line) { return rank(line) < static_cast<int>(level); });
    return lines;
}

// Stored identifiers are random, 1..65535: shown as N.
inline std::string without_msgids(std::string text)
{
    const std::string key = "\"msgid\":";
    for (size_t at = 0; (at = text.find(key, at)) != std::string::npos;) {
        at += key.size();
        const size_t end = text.find_first_not_of("0123456789", at);
        const int    id  = atoi(text.substr(at, end - at).c_str());
        if (id >= 1 && id <= 65535)
            text.replace(at, end - at, "N");
    }
    return text;
}

// ---- the world itself

// Everything that outlives a row: the module's tables, a held clock, and files where writing them costs nothing.
struct Stage {
    Handling    broker;
    ManualClock clock;
    std::string files;
    int         failures  = 0;
    bool        has_files = false; // left by the row before

    // Reports a row that went wrong; the first three of a table say enough.
    void report(const std::string &row, const std::string &wrong)
    {
        if (!wrong.empty() && ++failures <= 3)
            ADD_FAILURE() << row << wrong;
    }

    Stage()
    {
        broker.host.hear_events();
        broker.host.ask_acl();
        handler::begin_hello_period();
        char in_memory[] = "/dev/shm/tarn-routes-XXXXXX";
        if (mkdtemp(in_memory)) {
            files = in_memory;
            strcpy(g_persist_root_path, in_memory);
            make_directories();
        }
    }
    ~Stage()
    {
        std::error_code ignored;
        if (!files.empty())
            std::filesystem::remove_all(files, ignored);
    }
};

// One row's world, from before the message to after it.
class Scene {
public:
    Scene(Stage &stage, const World &world) : stage_(stage), world_(world)
    {
        g_last_handle = 0; // the same few slots for all rows
        if (stage.has_files)
            remove_files();
        stage.has_files = !world.files.empty();
        sub_init();
        sender_ = &add_client(kSender, world.sender_level, kSender);
        for (const Member &member : world.members)
            enter(member);
        for (const auto &[path, content] : world.files)
            std::ofstream(g_persist_root_path + ("/" + path)) << content;
        for (const Kept &kept : world.kept)
            retain_msg_set_with_expiry(kept.topic.c_str(), kept.payload.data(),
                                       static_cast<uint32_t>(kept.payload.size()), kept.qos, kept.expiry_s);
        hinder(*sender_, world.sender_hindrance);
        if (world.sender_awaits_7)
            qos_reliable_add_packet(*sender_, kPublishId, 1, "other", "o", 1);
        if (!world.sender_is_clean) {
            strcpy((*sender_)->session.client_id, kSender);
            (*sender_)->session.sub_count   = 1;
            (*sender_)->session.subs[0].qos = 1;
            strcpy((*sender_)->session.subs[0].topic, "saved");
        }
        (*sender_)->clean_session = world.sender_is_clean;
    }

    Client &sender() { return *sender_; }
    // A connection that has not said yet who it is, on kNewHandle; in what is seen it has this name.
    Client &newcomer(const std::string &name)
    {
        g_last_handle = kNewHandle;
        return add_client(name, 4, "");
    }

    // Does what it is given at this log level, and looks around.
    template <class Act> Seen see(uint32_t level, Act act)
    {
        g_rr_counter = world_.turn;
        msgid_seed   = world_.seed;
        memset(static_cast<void *>(&g_mqtt_stats), 0, sizeof g_mqtt_stats);
        stage_.broker.host.take();

        Seen seen;
        {
            LogCapture log(level);
            seen.result = act(*this);
            seen.lines  = log.take();
        }
        look(seen);
        stage_.clock.advance_ms(1001);
        {
            LogCapture log(level);
            qos_reliable_scan_queue();
        }
        seen.repeated = packets();
        std::erase_if(seen.lines, is_foreign_trace);
        return seen;
    }

private:
    static constexpr uint8_t kFiller[] = {0xC0, 0x00};

    Stage                                         &stage_;
    const World                                   &world_;
    std::map<std::string, std::unique_ptr<Client>> clients_;
    Client                                        *sender_ = nullptr;

    Client &add_client(const std::string &name, unsigned level, const std::string &id)
    {
        return *(clients_[name] = std::make_unique<Client>(stage_.broker, level, id.c_str()));
    }

    void enter(const Member &member)
    {
        if (member.id.empty()) // only this one takes it
            sub_add_with_id("", member.filter.c_str(), member.granted, !member.remembered, 1);
        else
            sub_add(member.id.c_str(), member.filter.c_str(), member.granted, !member.remembered);
        if (member.presence == Presence::Unknown || member.id == kSender)
            return;
        Client &client = add_client(member.id, member.level, member.id);
        client->state  = member.presence == Presence::Online ? CLIENT_LOGINED : CLIENT_WILL_PENDING;
        hinder(client, member.hindrance);
    }

    static void hinder(Client &client, Hindrance hindrance)
    {
        if (hindrance == Hindrance::RingFull)
            for (int i = 0; i < CLIENT_SEND_SLOTS - 1; i++)
                client_send(client, kFiller, sizeof kFiller);
        if (hindrance == Hindrance::Limit4)
            client->max_packet_size = 4;
    }

    Strings packets()
    {
        Strings all;
        for (auto &[id, client] : clients_)
            for (const Bytes &bytes : client->gets())
                if (bytes != Bytes(std::begin(kFiller), std::end(kFiller)))
                    all.push_back(id + ": " + brief(bytes));
        return all;
    }

    std::string name_of(const mqtt_client_t *record)
    {
        for (auto &[id, client] : clients_)
            if (record == *client)
                return id;
        return "?";
    }

    void look(Seen &seen)
    {
        seen.packets  = packets();
        seen.counters = counters();
        for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next) {
            qos_packet_t shown = *entry;
            shown.create_ms    = stage_.clock.mono_ms() - entry->create_ms;
            shown.last_send_ms = stage_.clock.mono_ms() - entry->last_send_ms;
            seen.pending.push_back(pending_text(name_of(entry->client), shown));
        }
        seen.files = files();
        stage_.has_files |= !seen.files.empty();
        for (auto &[id, client] : clients_) {
            if ((*client)->qos1_pending_msg_id)
                seen.records.push_back(printed("%s.qos1_pending=%u", id.c_str(), peek((*client)->qos1_pending_msg_id)));
            if ((*client)->qos2_pending_msg_id)
                seen.records.push_back(printed("%s.qos2_pending=%u", id.c_str(), peek((*client)->qos2_pending_msg_id)));
            if ((*client)->will_sent)
                seen.records.push_back(id + ".will_sent");
        }
        for (int at = 0; at < g_sub_mgr.retain_count; at++) {
            const retain_msg_t &kept = g_sub_mgr.retains[at];
            seen.retained.push_back(retained_text(kept.topic, kept.qos, kept.expiry_interval,
                                                  {kept.payload, kept.payload + kept.payload_len}));
        }
        seen.told  = stage_.broker.host.take();
        seen.turns = static_cast<int>(static_cast<uint32_t>(g_rr_counter) - static_cast<uint32_t>(world_.turn));
        for (uint32_t seed = world_.seed; seed != msgid_seed && seen.draws < 1000; seen.draws++)
            (void)rand_r(&seed);
    }

    static Strings counters()
    {
        Strings    moved;
        const auto count = [&](const char *name, uint64_t value) {
            if (value)
                moved.push_back(printed("%s+%llu", name, static_cast<unsigned long long>(value)));
        };
        const mqtt_stats_t &is = g_mqtt_stats;
        count("pkt_rx", is.pkt_rx), count("period_rx", is.period_rx);
        count("pkt_tx", is.pkt_tx), count("period_tx", is.period_tx);
        count("drop_offline", is.drop_offline), count("period_drop_offline", is.period_drop_offline);
        count("drop_queue_full", is.drop_queue_full), count("period_drop_queue_full", is.period_drop_queue_full);
        count("drop_too_big", is.drop_too_big), count("period_drop_too_big", is.period_drop_too_big);
        count("drop_invalid_param", is.drop_invalid_param);
        count("period_drop_invalid_param", is.period_drop_invalid_param);
        count("drop_send_failed", is.drop_send_failed), count("period_drop_send_failed", is.period_drop_send_failed);
        count("qos0", is.qos0), count("qos1", is.qos1), count("qos2", is.qos2);
        count("offline_msg", is.offline_msg), count("parse_error", is.parse_error);
        count("will_sent", is.will_sent), count("period_will", is.period_will);
        count("timeout", is.timeout), count("period_timeout", is.period_timeout);
        count("persist_write", is.persist_write), count("period_persist_write", is.period_persist_write);
        count("persist_read", is.persist_read), count("period_persist_read", is.period_persist_read);
        std::sort(moved.begin(), moved.end());
        return moved;
    }

    static Strings files()
    {
        Strings all;
        for (const char *kind : {"message", "session", "subscription"})
            for (const auto &file : std::filesystem::directory_iterator(std::string(g_persist_root_path) + "/" + kind))
                all.push_back(std::string(kind) + "/" + file.path().filename().string() + " " +
                              without_msgids(stored(kind, file.path().stem())));
        std::sort(all.begin(), all.end());
        return all;
    }

    static void remove_files()
    {
        for (const char *kind : {"message", "session", "subscription"})
            for (const auto &file : std::filesystem::directory_iterator(std::string(g_persist_root_path) + "/" + kind))
                std::filesystem::remove(file.path());
    }
};

} // namespace tarn::test::routes

#endif
