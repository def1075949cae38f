// A recorded run: every line at DEBUG, every byte to every client, every file and every counter of some thousand steps
// that clients, host, housekeeping and restarts take in an order drawn from a seed.
//
// What is recorded here may change only when that is wanted. A change is found by its chapter, and seen with
//     TARN_RECORD=/tmp/after build/dev/tests/unit/unit_life --gtest_filter='record.*'
// on both trees, which writes each chapter's text to a file of that folder, and diff.
#include "life_fixture.h"

#include "api/api_internal.h"
#include "persist/persist.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <random>
#include <regex>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr int kSteps   = 700; // a chapter
constexpr int kDevices = 14;

struct Chapter {
    unsigned seed;
    size_t   lines;
    uint64_t hash; // FNV-1a of the text
};

uint64_t fnv1a(std::string_view text)
{
    uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text)
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    return hash;
}

struct Device {
    std::unique_ptr<Line> line;
    unsigned              level = 4;
    std::vector<uint16_t> to_acknowledge;
    uint8_t               first = 0; // of the packet that the identifiers came with
};

class Recording {
public:
    explicit Recording(unsigned seed) : random_(seed), folder_("./data-" + std::to_string(seed))
    {
        persist_init(folder_.c_str());
        broker().keepalive_timeout = 300;
        world_.host.hear_events();
        world_.host.ask_auth();
        world_.host.ask_acl();
        world_.host.denied = "room/forbidden";
    }

    std::string play()
    {
        for (int step = 1; step <= kSteps; ++step) {
            note("---- " + std::to_string(step) + " " + act());
            collect();
        }
        for (Device &device : devices_)
            device.line.reset();
        note("---- the end");
        collect();
        note_state();
        return std::move(text_);
    }

private:
    broker_t &broker() { return world_.host.broker; }

    unsigned                              draw(unsigned count) { return static_cast<unsigned>(random_() % count); }
    bool                                  one_in(unsigned count) { return draw(count) == 0; }
    template <class T, size_t N> const T &any_of(const T (&list)[N]) { return list[draw(N)]; }

    // ---- what is written down

    void note(const std::string &line) { text_ += line + "\n"; }

    void collect()
    {
        // The first packets may make lines of their own, so lines are taken after them.
        std::vector<std::string> bytes;
        for (int n = 0; n < kDevices; ++n)
            if (devices_[n].line)
                if (const Bytes got = receive(devices_[n]); !got.empty())
                    bytes.push_back("device " + std::to_string(n) + " < " + hex(got));
        for (const LogLine &line : log_->take())
            note(line.level + " " + without_addresses(line.text));
        log_.emplace(AGENT_LOG_DEBUG); // a new one is cheaper than one that grows
        for (const std::string &heard : world_.host.take())
            note("host hears " + heard);
        for (const std::string &line : bytes)
            note(line);
        for (int n = 0; n < kDevices; ++n)
            if (devices_[n].line && devices_[n].line->is_closed()) {
                note("device " + std::to_string(n) + " is closed");
                devices_[n].line.reset();
            }
    }

    static std::string without_addresses(const std::string &text)
    {
        static const std::regex address("0x[0-9a-f]{7,}");
        return text.find("0x") == text.npos ? text : std::regex_replace(text, address, "0x#");
    }

    // Remembers the identifiers of deliveries, to acknowledge them later or never.
    static Bytes receive(Device &device)
    {
        Bytes got = device.line->gets();
        for (size_t at = 0, size; at < got.size() && (size = packet_size(got.data() + at, got.size() - at)) > 0;
             at += size) {
            const uint8_t first = got[at];
            const size_t  body  = at + (size > 129 ? 3 : 2);
            if (first >> 4 == 3 && (first & 6)) {
                const size_t id = body + 2 + static_cast<size_t>(got[body] << 8 | got[body + 1]);
                device.first    = first;
                device.to_acknowledge.push_back(static_cast<uint16_t>(got[id] << 8 | got[id + 1]));
            } else if (first >> 4 == 5 || first >> 4 == 6) {
                device.to_acknowledge.push_back(static_cast<uint16_t>(got[body] << 8 | got[body + 1]));
            }
        }
        return got;
    }

    void note_state()
    {
        char json[1024];
        mqtt_stats_to_json(json, sizeof json);
        note(std::string("stats ") + json);
        const mqtt_stats_t &s = g_mqtt_stats;
        note("more " + std::to_string(s.parse_error) + " " + std::to_string(s.persist_write) + " " +
             std::to_string(s.persist_read) + " " + std::to_string(s.period_rx) + " " + std::to_string(s.period_tx));
        for (int at = 0; at < g_sub_mgr.sub_count; ++at) {
            const sub_entry_t &sub = g_sub_mgr.subs[at];
            note(std::string("sub ") + sub.client_id + " " + sub.topic_filter + " " + std::to_string(sub.qos));
        }
        for (int at = 0; at < g_sub_mgr.retain_count; ++at)
            note(std::string("retained ") + g_sub_mgr.retains[at].topic + " " +
                 std::to_string(g_sub_mgr.retains[at].payload_len));
        note("pending " + std::to_string(pending_count()) + ", records " + std::to_string(g_client_mgr.used_count));
        note_files();
    }

    void note_files()
    {
        std::vector<std::filesystem::path> paths;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(folder_))
            if (entry.is_regular_file())
                paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        for (const auto &path : paths) {
            std::ifstream     file(path, std::ios::binary);
            const std::string content{std::istreambuf_iterator<char>(file), {}};
            note(path.string() + " " + std::to_string(content.size()) + " " +
                 (path.extension() == ".json" ? content : std::to_string(fnv1a(content))));
        }
    }

    // ---- what happens

    std::string act()
    {
        const unsigned what = draw(100);
        if (what < 8)
            return pass_time();
        if (what < 14)
            return host_acts();
        const unsigned n      = draw(kDevices);
        Device        &device = devices_[n];
        return "device " + std::to_string(n) + " " + (device.line ? say(device) : come(device));
    }

    std::string pass_time()
    {
        static constexpr int kTimes_ms[] = {10, 200, 1100, 2500, 12000, 31000, 61000};
        const int            ms          = any_of(kTimes_ms);
        clock_.advance_ms(ms);
        api::housekeeping_turn(broker(), clock_.wall_s());
        qos_reliable_scan_queue();
        return "time " + std::to_string(ms);
    }

    std::string host_acts()
    {
        const std::string topic = any_topic();
        const std::string id    = any_id();
        switch (draw(7)) {
        case 0:
            tarn_sdk_mqtt_broker_kick_client(&broker(), id.c_str());
            return "host kicks " + id;
        case 1:
            tarn_sdk_mqtt_broker_clear_retain(&broker(), topic.c_str());
            return "host clears " + topic;
        case 2:
            packet_handler_publish_test_msg();
            return "host sends a test message";
        case 3:
            client_clean_expired_sessions();
            return "host cleans sessions";
        case 4:
            persist_retain_load(); // subscriptions would come in the order of the directory, which is the machine's
            return "host loads retained messages";
        default: {
            const std::string text = any_payload();
            tarn_sdk_mqtt_broker_publish(&broker(), topic.c_str(), text.data(), static_cast<int32_t>(text.size()),
                                         draw(3), one_in(3), one_in(3) ? 30 : 0);
            return "host publishes " + topic;
        }
        }
    }

    std::string any_id()
    {
        static constexpr const char *kIds[] = {"ann", "bob", "cleo", "dan", "eve", "AaAa", "BBBB", "AaBB", "gus/1"};
        return any_of(kIds); // three of one bucket, one that reaches no file
    }
    std::string any_topic()
    {
        static constexpr const char *kTopics[] = {"room/1",         "room/2",  "room/2/lamp", "$sys/x",
                                                  "room/forbidden", "a//b",    "home",        "deep/er/and/deep/er",
                                                  "room/\xC3\xA4",  "t{\"\\}", "room/+"};
        return any_of(kTopics);
    }
    std::string any_filter()
    {
        static constexpr const char *kFilters[] = {"#",
                                                   "room/+",
                                                   "room/#",
                                                   "room/1",
                                                   "home",
                                                   "+/+/lamp",
                                                   "$share/g/room/+",
                                                   "a//b",
                                                   "$share/g/#",
                                                   "+",
                                                   "room/forbidden",
                                                   "room/#/x",
                                                   "$share/g",
                                                   "$share//room/1",
                                                   "t{\"\\}",
                                                   "deep/+/and/#",
                                                   "$sys/#",
                                                   "",
                                                   "room/+lamp",
                                                   "$share/h/room/1"};
        return any_of(kFilters);
    }
    std::string any_payload()
    {
        static constexpr size_t kSizes[] = {0, 1, 5, 40, 200, 700, 1025, 1900, 2035, 2048, 3000};
        std::string             text(any_of(kSizes), ' ');
        for (char &c : text)
            c = static_cast<char>(one_in(30) ? draw(256) : 'a' + draw(26));
        return text;
    }

    std::string come(Device &device)
    {
        device.line  = std::make_unique<Line>(world_);
        device.level = one_in(2) ? 5 : 4;
        device.to_acknowledge.clear();
        if (one_in(12))
            return "comes without CONNECT";
        Connect options;
        options.clean        = one_in(2);
        options.keep_alive_s = draw(4) * 20;
        if (device.level == 5 && one_in(2))
            options.session_expiry_s = draw(3) * 60;
        if (device.level == 5 && one_in(5))
            options.max_packet_size = draw(3000);
        if (one_in(3))
            options.will = any_will(device.level);
        if (one_in(4)) {
            options.username = "user";
            options.password = "secret";
        }
        world_.host.accepts  = !one_in(15);
        const std::string id = one_in(20) ? "" : any_id();
        device.line->send(connect_packet(device.level, id, options));
        world_.host.accepts = true;
        return "comes as '" + id + "'";
    }

    Will any_will(unsigned level)
    {
        Will will{any_topic(), any_payload().substr(0, 300), draw(3), one_in(2), {}};
        if (level == 5 && one_in(2))
            will.properties = wire("18 00 00 00") + Bytes{static_cast<uint8_t>(draw(40))};
        if (level == 5 && one_in(3))
            will.properties = will.properties + wire("02 00 00 00 1E");
        return will;
    }

    std::string say(Device &device)
    {
        const unsigned what = draw(20);
        if (what < 7)
            return publish(device);
        if (what < 10)
            return subscribe(device);
        if (what < 14)
            return acknowledge(device);
        switch (what) {
        case 14:
            device.line->send(unsubscribe_packet(device.level, 1 + draw(9), any_filter()));
            return "unsubscribes";
        case 15:
            device.line->send(wire("C0 00"));
            return "pings";
        case 16:
            device.line->send(any_disconnect(device.level));
            return "says DISCONNECT";
        case 17:
            device.line->drop();
            return "vanishes";
        default:
            return talk_nonsense(device);
        }
    }

    std::string publish(Device &device)
    {
        Publish options;
        options.qos    = draw(3);
        options.retain = one_in(3);
        options.dup    = one_in(8);
        options.id     = draw(40);
        if (device.level == 5 && one_in(3))
            options.properties = one_in(2) ? wire("02 00 00 00 0A") : wire("23 00 05");
        const std::string topic = any_topic();
        device.line->send(publish_packet(device.level, topic, any_payload(), options));
        return "publishes " + topic;
    }

    std::string subscribe(Device &device)
    {
        Bytes body = u16(1 + draw(9)) + (device.level == 5 ? wire(one_in(4) ? "02 0B 07" : "00") : Bytes{});
        for (unsigned count = 1 + draw(4); count > 0; --count)
            body = body + prefixed(any_filter()) + Bytes{static_cast<uint8_t>(draw(4))};
        device.line->send(packet(0x82, body));
        return "subscribes";
    }

    std::string acknowledge(Device &device)
    {
        static constexpr uint8_t kFirst[] = {0x40, 0x50, 0x62, 0x70};
        if (device.to_acknowledge.empty() || one_in(10)) {
            device.line->send(ack_packet(device.level, any_of(kFirst), draw(200)));
            return "acknowledges what nobody sent";
        }
        const uint16_t id   = device.to_acknowledge.front();
        const uint8_t  type = (device.first & 6) == 2 ? 0x40 : kFirst[1 + draw(3)];
        if (!one_in(3))
            device.to_acknowledge.erase(device.to_acknowledge.begin());
        device.line->send(ack_packet(device.level, type, id));
        return "acknowledges";
    }

    Bytes any_disconnect(unsigned level)
    {
        static constexpr const char *kLevel5[] = {"E0 02 00 00", "E0 00", "E0 02 04 00", "E0 07 00 05 10 00 00 00 3C",
                                                  "E0 07 00 05 10 00 00 00 00"};
        return wire(level == 5 ? any_of(kLevel5) : "E0 00");
    }

    // A packet of any type, cut somewhere or with a bit turned over.
    std::string talk_nonsense(Device &device)
    {
        Bytes bytes = one_in(2)
                          ? publish_packet(device.level, any_topic(), any_payload().substr(0, 90), {.qos = draw(3)})
                          : subscribe_packet(device.level, 1 + draw(9), any_filter(), draw(4));
        if (one_in(3))
            bytes = connect_packet(device.level, any_id());
        if (one_in(4))
            bytes[0] = static_cast<uint8_t>(draw(256));
        if (one_in(2))
            bytes[draw(static_cast<unsigned>(bytes.size()))] ^= static_cast<uint8_t>(1u << draw(8));
        if (one_in(3))
            bytes.resize(1 + draw(static_cast<unsigned>(bytes.size())));
        device.line->send(bytes);
        return "talks nonsense";
    }

    ManualClock               clock_;
    std::mt19937              random_;
    const std::string         folder_; // of this chapter alone
    World                     world_;
    std::optional<LogCapture> log_{AGENT_LOG_DEBUG};
    Device                    devices_[kDevices];
    std::string               text_;
};

void write_down(unsigned seed, const std::string &text)
{
    if (const char *const folder = getenv("TARN_RECORD"))
        std::ofstream(std::string(folder) + "/chapter-" + std::to_string(seed) + ".txt", std::ios::binary) << text;
}

// One after the other in one process: a chapter begins with the counters of the one before, and no files.
constexpr Chapter kChapters[] = {
    {1, 84135, 0xa0e2f0d30986db0a},
    {2, 69533, 0xc22e08589b53926b},
    {3, 63340, 0x7ddbf9d211dc2a56},
    {4, 65941, 0xbb5ce7f6e90004bc},
};

} // namespace

TEST(record, has_not_changed)
{
    const UnsyncedFiles unsynced;
    for (const Chapter &chapter : kChapters) {
        const std::string text  = Recording(chapter.seed).play();
        const auto        lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
        write_down(chapter.seed, text);
        EXPECT_TRUE(lines == chapter.lines && fnv1a(text) == chapter.hash)
            << "chapter {" << chapter.seed << ", " << lines << ", 0x" << std::hex << fnv1a(text) << "}";
    }
}
