// All ways in which a client's life ends, for every kind of client, with every kind of will: what it is told, what
// becomes of session, subscriptions, will and record, and the lines of it.
#include "life_fixture.h"
#include "support/log_lines/client.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

enum Session { Untouched, Deleted, Deadline, Saved };
enum Way { Drops, Disconnects, TimesOut, IsKicked, SendsTooMuch, IsRefusedAgain };

struct Kind {
    const char *name;
    unsigned    level;
    bool        clean;
    uint32_t    expiry_s;
    Session     unless_disconnect; // what becomes of its session
    Session     after_disconnect;
};
constexpr Kind kKinds[] = {
    {"4, clean", 4, true, 0, Untouched, Deleted}, {"4, kept", 4, false, 0, Deleted, Saved},
    {"5, clean", 5, true, 0, Untouched, Deleted}, {"5, clean, expiry", 5, true, 3600, Untouched, Saved},
    {"5, kept", 5, false, 0, Deleted, Deleted},   {"5, kept, expiry", 5, false, 3600, Deadline, Saved},
};

struct WayRow {
    Way         way;
    const char *name;
    const char *told_v4;
    const char *told_v5;
    bool        will_starts;
    bool        forced;           // and the line about it comes
    bool        takes_clean_subs; // the subscriptions of a clean session
};
constexpr WayRow kWays[] = {
    {Drops, "drops", "", "", true, true, true},
    {Disconnects, "disconnects", "", "", false, false, true},
    {TimesOut, "times out", "", "", true, false, false},
    {IsKicked, "is kicked", "E0 00", "E0 02 98 00", true, true, false},
    {SendsTooMuch, "sends too much", "E0 00", "E0 02 95 00", true, true, false},
    {IsRefusedAgain, "is refused again", "20 02 00 00", "20 0B 00 86 08 21 00 00 27 00 00 00 00", true, true, false},
};

struct WillRow {
    const char *name;
    bool        any;
    uint32_t    delay_s;
};
constexpr WillRow kWills[] = {{"no will", false, 0}, {"a will", true, 0}, {"a delayed will", true, 30}};

struct Case {
    const Kind    &kind;
    const WayRow  &way;
    const WillRow &will;
    std::string    id;

    Session session() const { return way.way == Disconnects ? kind.after_disconnect : kind.unless_disconnect; }
    // Publishing the will of a kept session saves its subscriptions, also behind its deletion.
    bool saved_again() const { return session() == Deleted && !kind.clean && will_starts(); }
    bool will_starts() const { return will.any && way.will_starts; }
};

void connect(Line &line, const Case &test)
{
    Connect options;
    options.clean        = test.kind.clean;
    options.keep_alive_s = 10;
    if (test.kind.expiry_s)
        options.session_expiry_s = test.kind.expiry_s;
    if (test.will.any)
        options.will =
            Will{"w/" + test.id, "gone", 0, false,
                 test.will.delay_s ? wire("18 00 00 00") + Bytes{static_cast<uint8_t>(test.will.delay_s)} : Bytes{}};
    line.send(connect_packet(test.kind.level, test.id, options));
    line.send(subscribe_packet(test.kind.level, 1, "t/" + test.id, 1));
    EXPECT_EQ(line.gets().front(), 0x20);
}

void end_life(World &world, ManualClock &clock, Line &line, const Case &test)
{
    switch (test.way.way) {
    case Drops:
        return line.drop();
    case Disconnects:
        return line.send(test.kind.level == 5 ? wire("E0 02 00 00") : wire("E0 00"));
    case TimesOut:
        clock.advance_ms(15000);
        EXPECT_EQ(client_clean_timeout(300000), 1u);
        return;
    case IsKicked:
        EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(&world.host.broker, test.id.c_str()), 0);
        return;
    case SendsTooMuch:
        return line.send(Bytes(4097, 0x30));
    case IsRefusedAgain:
        world.host.accepts = false;
        line.send(connect_packet(test.kind.level, test.id));
        world.host.accepts = true;
    }
}

std::vector<LogLine> expected_lines(const Case &test, int64_t now_s)
{
    std::vector<LogLine> lines;
    if (test.session() == Deadline)
        lines.push_back(logged::session_kept_until(test.id, 3600, now_s + 3600));
    if (test.session() == Deleted && test.way.way != Disconnects)
        lines.push_back(logged::session_removed_at_close(test.id));
    if (!test.will_starts()) {
        lines.push_back(logged::client_closed(test.id));
        return lines;
    }
    if (test.way.forced)
        lines.push_back(logged::connection_lost_with_will(test.id));
    lines.push_back(logged::will_delayed(test.id, test.will.delay_s));
    return lines;
}

std::vector<LogLine> closing_lines(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) {
        for (const char *own : {"[MQTT5] 会话", "[遗嘱调试][异常断开]", "[WILL-ENTER]", "[FREE-NORMAL]"})
            if (line.text.rfind(own, 0) == 0)
                return false;
        return true;
    });
    return lines;
}

void expect_session(const Case &test, int64_t now_s, const std::string &session, const std::string &subscriptions)
{
    const std::string after = stored("session", test.id), subs_after = stored("subscription", test.id);
    switch (test.session()) {
    case Untouched:
        EXPECT_EQ(after, session);
        EXPECT_EQ(subs_after, subscriptions);
        break;
    case Deleted:
        EXPECT_EQ(after, "");
        EXPECT_EQ(subs_after, test.saved_again() && test.will.delay_s == 0 ? subscriptions : "");
        break;
    case Deadline:
        EXPECT_NE(after.find("\"session_expiry_deadline\":" + std::to_string(now_s + 3600)), std::string::npos)
            << after;
        EXPECT_EQ(subs_after, subscriptions);
        break;
    case Saved:
        EXPECT_EQ(after.find(std::to_string(now_s + 3600)), std::string::npos) << after;
        EXPECT_NE(subs_after.find("t/" + test.id), std::string::npos) << subs_after;
    }
}

void expect_record(const Case &test, mqtt_client_t *record, int32_t used_before, int32_t delayed_before)
{
    const bool waiting = test.will_starts();
    EXPECT_EQ(record->state, uint32_t{waiting ? CLIENT_WILL_PENDING : CLIENT_CLOSED});
    EXPECT_EQ(record->used, waiting);
    EXPECT_EQ(g_client_mgr.used_count, used_before - !waiting);
    EXPECT_EQ(g_will_delay_client_count, delayed_before + waiting);
    EXPECT_EQ(record->will_delay_pending, waiting && test.will.delay_s != 0);
    EXPECT_EQ(record->will_sent, waiting && test.will.delay_s == 0);
    EXPECT_EQ(client_find_by_cid(test.id.c_str()), nullptr);
}

void run_case(World &world, ManualClock &clock, const Case &test)
{
    Line watch(world);
    watch.send(connect_packet(4, "watch", {.keep_alive_s = 60000}));
    watch.send(subscribe_packet(4, 1, "w/#", 0));
    Line line(world);
    connect(line, test);
    (void)watch.gets();
    mqtt_client_t *const record  = line.record();
    const std::string    session = stored("session", test.id), subscriptions = stored("subscription", test.id);
    const int32_t        used = g_client_mgr.used_count, delayed = g_will_delay_client_count;
    const int32_t        subs = g_sub_mgr.sub_count;

    LogCapture log(AGENT_LOG_INFO);
    end_life(world, clock, line, test);
    EXPECT_THAT(closing_lines(log), ElementsAreArray(expected_lines(test, clock.wall_s())));
    EXPECT_EQ(line.gets(), wire(test.kind.level == 5 ? test.way.told_v5 : test.way.told_v4));
    EXPECT_TRUE(line.is_closed());
    EXPECT_EQ(line.record(), nullptr);
    expect_session(test, clock.wall_s(), session, subscriptions);
    EXPECT_EQ(g_sub_mgr.sub_count, subs - (test.kind.clean && test.way.takes_clean_subs));
    expect_record(test, record, used, delayed);
    EXPECT_EQ(!watch.gets().empty(), test.will_starts() && test.will.delay_s == 0) << "the will at once";

    clock.advance_ms(int64_t{30} * 1000); // when a delayed one is due
    client_will_delay_scan();
    EXPECT_EQ(!watch.gets().empty(), test.will_starts() && test.will.delay_s != 0) << "the will later";
    const bool kept =
        test.session() == Deleted ? test.saved_again() : test.session() == Saved || !subscriptions.empty();
    EXPECT_EQ(!stored("subscription", test.id).empty(), kept);
    sub_remove(test.id.c_str(), nullptr);
}

} // namespace

TEST(close_table, every_kind_of_client_every_way_and_every_will)
{
    ManualClock clock;
    World       world;
    world.host.ask_auth();
    world.host.hear_events();
    int cases = 0;
    for (const Kind &kind : kKinds)
        for (const WayRow &way : kWays)
            for (const WillRow &will : kWills) {
                if (kind.level == 4 && will.delay_s != 0)
                    continue;
                SCOPED_TRACE(std::string(kind.name) + ", " + way.name + ", " + will.name);
                run_case(world, clock, {kind, way, will, "dev" + std::to_string(++cases)});
            }
    EXPECT_EQ(cases, (2 * 2 + 4 * 3) * 6);
}

// A first CONNECT that is refused has neither id nor session nor will yet.
TEST(close_table, a_refused_stranger_leaves_nothing)
{
    World world;
    world.host.ask_auth();
    world.host.accepts = false;
    for (const unsigned level : {4u, 5u}) {
        Line       line(world);
        LogCapture log(AGENT_LOG_INFO);
        line.send(connect_packet(level, "stranger", {.clean = false, .will = Will{"w", "gone"}}));
        EXPECT_THAT(closing_lines(log),
                    ElementsAreArray({logged::session_removed_at_close(""), logged::client_closed("")}));
        EXPECT_TRUE(line.is_closed());
        EXPECT_EQ(g_client_mgr.used_count, 0);
        EXPECT_EQ(stored("session", "stranger"), "");
    }
}

namespace {

// True when any other thread could take every lock of the client manager, the subscriptions, the deliveries and the
// connection table now. The guard of a record's saved session may be held while that session is being written.
void expect_free(bool writing)
{
    const auto expect_one = [](Mutex &lock, const char *name) {
        const bool is_free = lock.try_lock();
        EXPECT_TRUE(is_free) << name;
        if (is_free)
            lock.unlock();
    };
    for (Mutex &lock : g_client_mgr.locks)
        expect_one(lock, "g_client_mgr.locks");
    expect_one(client::pool_mutex, "pool_mutex");
    expect_one(g_queue_mutex, "g_queue_mutex");
    expect_one(g_sub_mgr.lock, "g_sub_mgr.lock");
    expect_one(msgid_mutex, "msgid_mutex");
    std::thread([&] { expect_one(g_netip_lock, "g_netip_lock"); }).join(); // its own holder could take it again
    for (int32_t at = 0; at < 4; ++at) {
        mqtt_client_t &record = *client::record_at(at);
        expect_one(record.will_lock, "will_lock");
        expect_one(record.send_lock, "send_lock");
        expect_one(client::side_at(at).id_mutex, "id_mutex");
        if (!writing)
            expect_one(client::side_at(at).session_mutex, "session_mutex");
    }
}

} // namespace

TEST(close_locks, none_is_held_while_files_are_written_or_the_host_is_called)
{
    ManualClock clock;
    World       world;
    world.host.ask_auth();
    static int told, written;
    world.host.broker.event_cb = [](broker_t *, uint32_t, const char *) {
        ++told;
        expect_free(false);
    };
    int cases = 0;
    for (const Kind &kind : kKinds)
        for (const WayRow &way : kWays) {
            SCOPED_TRACE(std::string(kind.name) + ", " + way.name);
            const Case test{kind, way, kWills[1], "dev" + std::to_string(++cases)};
            Line       watch(world);
            watch.send(connect_packet(5, "watch", {.keep_alive_s = 60000}));
            watch.send(subscribe_packet(5, 1, "w/#", 0));
            Line line(world);
            connect(line, test);
            told = written = 0;
            {
                const OnFileCall hook([] {
                    ++written;
                    expect_free(true);
                });
                end_life(world, clock, line, test);
            }
            EXPECT_EQ(told, 1) << "of the will, or of the DISCONNECT";
            if (test.session() != Untouched) {
                EXPECT_GT(written, 0);
            }
        }
}

TEST(close_locks, none_is_held_while_a_delayed_will_is_published)
{
    ManualClock clock;
    World       world;
    static int  told;
    told = 0;
    Line line(world);
    line.send(connect_packet(
        5, "dev",
        {.clean = false, .session_expiry_s = 60, .will = Will{"w", "gone", 1, false, wire("18 00 00 00 05")}}));
    line.drop();
    world.host.broker.event_cb = [](broker_t *, uint32_t, const char *) {
        ++told;
        expect_free(false);
    };
    const OnFileCall hook([] { expect_free(true); });
    clock.advance_ms(5000);
    client_will_delay_scan();
    EXPECT_EQ(told, 1);
    EXPECT_EQ(g_client_mgr.used_count, 0);
}
