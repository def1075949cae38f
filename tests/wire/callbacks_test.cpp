// Callbacks that call the library, each function at each moment at which one can run, and a host that changes its
// callbacks while clients keep them busy.
#include "support/host.h"
#include "support/peer.h"
#include "support/process_state.h"

#include <tarn_sdk_mqtt_broker.hpp>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <thread>
#include <vector>

using namespace tarn::test;

namespace {

// When a callback can run. The last three: not on a thread of the network layer.
enum class Moment {
    Auth,
    AclSubscribe,
    AclPublish,
    Connected,
    Subscribe,
    Publish,
    Unsubscribe,
    Disconnected,
    Will,
    DelayedWill,
    WillInKick,
    WillInDeinit
};
constexpr const char *kNames[] = {"auth",      "acl_subscribe", "acl_publish",  "connected",
                                  "subscribe", "publish",       "unsubscribe",  "disconnected",
                                  "will",      "delayed_will",  "will_in_kick", "will_in_deinit"};

Moment                          g_moment;
std::function<void(broker_t *)> g_act;      // once, at that moment, inside the callback
std::atomic<int>                g_acted{0}; // 0 to do, 1 under way, 2 done, 3 not asked for

void at(bool is_moment, broker_t *broker)
{
    if (!is_moment || g_acted.load() != 0)
        return;
    g_acted = 1; // on its way: what it does may call back
    g_act(broker);
    g_acted = 2;
}

void on_event(broker_t *broker, uint32_t kind, const char *)
{
    constexpr Moment kMoments[] = {Moment::Connected, Moment::Disconnected, Moment::Publish,
                                   Moment::Subscribe, Moment::Unsubscribe,  Moment::Will};
    at(kMoments[kind] == std::min(g_moment, Moment::Will), broker);
}
bool on_auth(broker_t *broker, const char *, const char *, const char *)
{
    at(g_moment == Moment::Auth, broker);
    return true;
}
bool on_acl(broker_t *broker, const char *, const char *, uint8_t action, mqtt_client_t *)
{
    at(g_moment == (action == BROKER_ACL_PUBLISH ? Moment::AclPublish : Moment::AclSubscribe), broker);
    return true;
}

void register_all(broker_t *broker)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, on_auth);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, on_acl);
}

// A serving instance whose client "c" runs into every moment. What ends it, a test may do itself.
class Life {
public:
    explicit Life(Moment moment) : broker_(tarn_sdk_mqtt_broker_create())
    {
        g_moment = moment;
        g_acted  = 3; // not yet: others than "c" connect first
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker_), TARN_OK);
        register_all(broker_);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker_, 1883, 100), TARN_OK);
    }
    ~Life()
    {
        if (!broker_)
            return;
        tarn_sdk_mqtt_broker_stop(broker_);
        tarn_sdk_mqtt_broker_deinit(broker_);
        tarn_sdk_mqtt_broker_destroy(broker_);
    }
    broker_t *broker() const { return broker_; }
    void      forget() { broker_ = nullptr; }

    // Until the callback has done what it was to do.
    void drive(std::function<void(broker_t *)> act, Where where = Where::here())
    {
        g_act                 = std::move(act);
        g_acted               = 0;
        const bool    is_slow = g_moment == Moment::DelayedWill;
        Peer          client  = Peer::tcp();
        const Connect connect = {.session_expiry_s = 100,
                                 .will = Will{"w", "gone", 0, false, is_slow ? wire("18 00 00 00 01") : Bytes{}}};
        client.send(connect_packet(5, "c", connect));
        client.send(subscribe_packet(5, 1, "t", 0) + publish_packet(5, "x", "hello") + unsubscribe_packet(5, 2, "t"));
        if (g_moment == Moment::Disconnected)
            client.send(disconnect_packet(5));
        if (g_moment >= Moment::Will) {
            client.expect("20 .. | 00 00 | .. .. .. .. .. .. .. .. ..", where);
            while (client.ok() && client.read_packet().front() != 0xB0) // all of it was handled
                continue;
        }
        if (g_moment == Moment::Will || is_slow)
            client.hang_up();
        if (g_moment == Moment::WillInKick) {
            EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(broker_, "c"), TARN_OK);
        }
        if (g_moment == Moment::WillInDeinit) {
            tarn_sdk_mqtt_broker_stop(broker_);
            tarn_sdk_mqtt_broker_deinit(broker_);
        }
        EXPECT_TRUE(wait_until([] { return g_acted == 2; })) << where.file << ":" << where.line;
    }

private:
    broker_t *broker_;
};

void expect_service()
{
    Peer::tcp().connect_v4("somebody").ping();
}

// The lifecycle calls below may be refused while the host's own thread is inside one, and nothing else is.
bool is_inside_a_lifecycle_call(Moment moment)
{
    return moment == Moment::WillInDeinit;
}

broker_t *g_left = nullptr;

// All that leaves the service as it is, with its result.
void call_what_changes_nothing(broker_t *broker)
{
    const bool                   in_deinit = is_inside_a_lifecycle_call(g_moment);
    const bool                   is_known  = g_moment >= Moment::Connected && g_moment <= Moment::Unsubscribe;
    char                         text[1000];
    tarn_sdk_mqtt_client_info_t  info;
    tarn_sdk_mqtt_broker_stats_t stats;
    EXPECT_EQ(tarn_sdk_mqtt_broker_is_running(broker), !in_deinit);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_log_level(broker, 2), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, 300), in_deinit ? TARN_OK : TARN_E_BUSY);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker, 4096), in_deinit ? TARN_OK : TARN_E_BUSY);
    EXPECT_STREQ(tarn_sdk_mqtt_broker_version(), "V2.0.0");
    EXPECT_STREQ(tarn_sdk_mqtt_broker_error_str(TARN_E_BUSY), "Busy (already running)");
    EXPECT_LE(tarn_sdk_mqtt_broker_get_online_count(broker), 2u);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_id_list(broker, text, sizeof text), TARN_OK);
    if (is_known) {
        EXPECT_STREQ(text, in_deinit ? "c" : "watcher,c");
        EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(broker, "c", &info), TARN_OK);
        EXPECT_STREQ(info.client_id, "c");
    }
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_client_info(broker, "nobody", &info), TARN_E_NOT_FOUND);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_stats(broker, &stats), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_publish(broker, "from/callback", "hello", 5, 0, 1, 60), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_get_retain_topic_list(broker, text, sizeof text), TARN_OK);
    EXPECT_STREQ(text, "from/callback\n");
    EXPECT_EQ(tarn_sdk_mqtt_broker_clear_retain(broker, "from/callback"), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_kick_client(broker, "nobody"), TARN_E_NOT_FOUND);

    broker_t *const other = tarn_sdk_mqtt_broker_create();
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(other, 1883, 100), in_deinit ? TARN_E_BUSY : TARN_E_RESOURCE);
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(other), TARN_OK);
    if (in_deinit)
        g_left = other; // destroy would leave it as it is
    else
        tarn_sdk_mqtt_broker_destroy(other);

    tarn_sdk_mqtt_broker_register_event_callback(broker, nullptr);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, nullptr);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, nullptr);
    register_all(broker);
}

struct callback : testing::TestWithParam<Moment> {
    Moment moment() const { return GetParam(); }
};

std::string name_of(const testing::TestParamInfo<Moment> &moment)
{
    return kNames[static_cast<int>(moment.param)];
}

} // namespace

TEST_P(callback, may_call_what_changes_nothing)
{
    Life life(moment());
    Peer watcher = Peer::tcp();
    watcher.connect_v4("watcher").subscribe("from/#");
    life.drive(call_what_changes_nothing);
    tarn_sdk_mqtt_broker_destroy(g_left);
    if (is_inside_a_lifecycle_call(moment()))
        return; // the watcher was closed first
    watcher.expect("31 14 | 00 0D 'from/callback' | 'hello'");
    watcher.ping();
    expect_service();
}

TEST_P(callback, may_kick_the_client_it_is_about)
{
    Life             life(moment());
    std::atomic<int> result{1};
    life.drive([&](broker_t *broker) { result = tarn_sdk_mqtt_broker_kick_client(broker, "c"); });
    const bool is_known = moment() != Moment::Auth && moment() < Moment::Will;
    EXPECT_TRUE(!is_known || result == TARN_OK) << result;
    if (is_inside_a_lifecycle_call(moment()))
        return;
    EXPECT_TRUE(wait_until([&] { return tarn_sdk_mqtt_broker_get_online_count(life.broker()) == 0; }));
    expect_service();
}

// Its will is published inside the callback, which is called again for it.
TEST_P(callback, may_kick_another_client)
{
    Life life(moment());
    Peer other = Peer::tcp();
    other.connect_v5("other", {.will = Will{"w", "gone"}}).ping();
    std::atomic<int> result{1};
    life.drive([&](broker_t *broker) { result = tarn_sdk_mqtt_broker_kick_client(broker, "other"); });
    if (is_inside_a_lifecycle_call(moment()))
        return; // perhaps it was closed already
    EXPECT_EQ(result, TARN_OK);
    other.expect("E0 02 | 98 00");
    other.expect_closed();
    expect_service();
}

TEST_P(callback, may_stop_and_start)
{
    Life life(moment());
    life.drive([&](broker_t *broker) {
        const bool in_deinit = is_inside_a_lifecycle_call(g_moment);
        EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), TARN_OK);
        EXPECT_FALSE(tarn_sdk_mqtt_broker_is_running(broker));
        EXPECT_EQ(tarn_sdk_mqtt_broker_set_max_packet_size(broker, 4096), TARN_OK);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker, 1883, 100), in_deinit ? TARN_E_BUSY : TARN_OK);
    });
    if (is_inside_a_lifecycle_call(moment()))
        return;
    expect_service();
    EXPECT_TRUE(tarn_sdk_mqtt_broker_is_running(life.broker()));
}

TEST_P(callback, may_initialise_again)
{
    Life life(moment());
    life.drive([&](broker_t *broker) {
        const bool in_deinit = is_inside_a_lifecycle_call(g_moment);
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), in_deinit ? TARN_E_BUSY : TARN_OK);
    });
    if (!is_inside_a_lifecycle_call(moment()))
        expect_service();
}

TEST_P(callback, may_deinitialise)
{
    Life life(moment());
    life.drive([&](broker_t *broker) {
        tarn_sdk_mqtt_broker_stop(broker);
        tarn_sdk_mqtt_broker_deinit(broker);
    });
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(life.broker()), TARN_OK); // its own thread waits to be joined
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(life.broker()), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(life.broker(), 1883, 100), TARN_OK);
    expect_service();
}

TEST_P(callback, may_end_everything)
{
    Life life(moment());
    life.drive([&](broker_t *broker) {
        tarn_sdk_mqtt_broker_stop(broker);
        tarn_sdk_mqtt_broker_deinit(broker);
        tarn_sdk_mqtt_broker_destroy(broker); // leaves it when the host is inside deinit
    });
    if (!is_inside_a_lifecycle_call(moment()))
        life.forget();
    const Host next;
    expect_service();
}

// Without deinit clients stay, but nobody is told or asked any more.
TEST_P(callback, may_destroy_alone)
{
    Life life(moment());
    life.drive([&](broker_t *broker) { tarn_sdk_mqtt_broker_destroy(broker); });
    if (is_inside_a_lifecycle_call(moment())) { // it is left as it is
        EXPECT_EQ(tarn_sdk_mqtt_broker_init(life.broker()), TARN_OK);
        EXPECT_EQ(tarn_sdk_mqtt_broker_start(life.broker(), 1883, 100), TARN_OK);
        expect_service();
        return;
    }
    life.forget();
    g_acted = 0;
    expect_service();
    EXPECT_EQ(g_acted, 0);
    broker_t *const other = tarn_sdk_mqtt_broker_create();
    tarn_sdk_mqtt_broker_deinit(other);
    tarn_sdk_mqtt_broker_destroy(other);
}

INSTANTIATE_TEST_SUITE_P(of, callback,
                         testing::Values(Moment::Auth, Moment::AclSubscribe, Moment::AclPublish, Moment::Connected,
                                         Moment::Subscribe, Moment::Publish, Moment::Unsubscribe, Moment::Disconnected,
                                         Moment::Will, Moment::DelayedWill, Moment::WillInKick, Moment::WillInDeinit),
                         name_of);

// ---- under load

namespace {

// How long the two tests below keep it up; TARN_LOAD_SECONDS makes it longer.
double load_seconds()
{
    const char *const wanted = getenv("TARN_LOAD_SECONDS");
    return wanted ? atof(wanted) : 0.7;
}

// Clients that come, run into every callback, and go in different ways, until they are told to end.
class Crowd {
public:
    Crowd()
    {
        for (unsigned n = 0; n < 3; ++n)
            threads_.emplace_back([this, n] {
                for (unsigned visit = 0; !end_; ++visit)
                    come_and_go("crowd-" + std::to_string(n), visit);
            });
    }
    ~Crowd()
    {
        end_ = true;
        for (std::thread &thread : threads_)
            thread.join();
    }

private:
    static void come_and_go(const std::string &id, unsigned visit)
    {
        const unsigned level = visit % 2 ? 5 : 4;
        Connect        options;
        if (visit % 8 == 0 && visit < 400) // a will keeps its client's record
            options.will = Will{"t/will", "gone"};
        Peer peer = Peer::tcp();
        peer.send(connect_packet(level, id, options) + subscribe_packet(level, 1, "t/#", visit % 3));
        for (unsigned i = 0; i < 10 && peer.drain(); ++i)
            peer.send(publish_packet(level, "t/" + id, "hello", {.qos = i % 2, .id = i + 1}));
        peer.send(unsubscribe_packet(level, 2, "t/#") + wire("C0 00"));
        if (visit % 3 == 0)
            peer.send(disconnect_packet(level));
        for (Bytes packet; !(packet = peer.read_packet(50)).empty() && packet[0] != 0xD0;)
            continue;
        if (visit % 3 == 1)
            peer.reset();
    }

    std::atomic<bool>        end_{false};
    std::vector<std::thread> threads_;
};

// The host's own calls beside it.
void query_and_kick(broker_t *broker, unsigned turn)
{
    char                         text[1000];
    tarn_sdk_mqtt_client_info_t  info;
    tarn_sdk_mqtt_broker_stats_t stats;
    const std::string            id = "crowd-" + std::to_string(turn % 3);
    tarn_sdk_mqtt_broker_get_client_id_list(broker, text, sizeof text);
    tarn_sdk_mqtt_broker_get_client_info(broker, id.c_str(), &info);
    tarn_sdk_mqtt_broker_get_stats(broker, &stats);
    tarn_sdk_mqtt_broker_publish(broker, "t/host", "hello", 5, turn % 3, 0, 0);
    if (turn % 16 == 0)
        tarn_sdk_mqtt_broker_kick_client(broker, id.c_str());
}

std::atomic<broker_t *>                  g_alive{nullptr};
std::array<std::atomic<unsigned>, 2 * 3> g_calls; // of the first and the second event, auth and acl callback
std::atomic<unsigned>                    g_strays{0};

void count(broker_t *broker, size_t which)
{
    ++g_calls[which];
    if (broker != g_alive || !tarn_sdk_mqtt_broker_version())
        ++g_strays;
}
template <size_t N> void count_event(broker_t *broker, uint32_t kind, const char *text)
{
    count(broker, N);
    if (kind > BROKER_EVENT_WILL || strncmp(text, "{\"clientId\":\"crowd-", 19) != 0)
        ++g_strays;
}
template <size_t N> bool count_auth(broker_t *broker, const char *id, const char *, const char *)
{
    count(broker, 2 + N);
    return strncmp(id, "crowd-", 6) == 0;
}
template <size_t N> bool count_acl(broker_t *broker, const char *id, const char *topic, uint8_t, mqtt_client_t *)
{
    count(broker, 4 + N);
    return strncmp(id, "crowd-", 6) == 0 && topic[0] == 't';
}

void change_a_callback(broker_t *broker, unsigned what)
{
    static constexpr broker_event_cb_t kEvent[] = {count_event<0>, count_event<1>, nullptr};
    static constexpr broker_auth_cb_t  kAuth[]  = {count_auth<0>, count_auth<1>, nullptr};
    static constexpr broker_acl_cb_t   kAcl[]   = {count_acl<0>, count_acl<1>, nullptr};
    tarn_sdk_mqtt_broker_register_event_callback(broker, kEvent[what % 3]);
    tarn_sdk_mqtt_broker_register_auth_callback(broker, kAuth[what / 3 % 3]);
    tarn_sdk_mqtt_broker_register_acl_callback(broker, kAcl[what / 9 % 3]);
}

} // namespace

TEST(load_callbacks, are_registered_replaced_and_cleared_under_clients)
{
    std::optional<Crowd> crowd;
    for (int life = 0; life < 2; ++life) {
        broker_t *const broker = tarn_sdk_mqtt_broker_create();
        g_alive                = broker;
        ASSERT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
        ASSERT_EQ(tarn_sdk_mqtt_broker_start(broker, 1883, 1000), TARN_OK);
        if (!crowd)
            crowd.emplace(); // it stays over the end of the first broker
        std::atomic<bool> end{false};
        std::thread       changing([&] {
            for (std::minstd_rand random; !end;)
                change_a_callback(broker, random());
        });
        const double      until = now_s() + load_seconds();
        for (unsigned turn = 0; now_s() < until; ++turn)
            query_and_kick(broker, turn);
        tarn_sdk_mqtt_broker_stop(broker);
        tarn_sdk_mqtt_broker_deinit(broker); // while they are still being changed
        end = true;
        changing.join();
        tarn_sdk_mqtt_broker_destroy(broker);
        g_alive = nullptr;
    }
    crowd.reset();
    EXPECT_EQ(g_strays, 0u);
    for (size_t which = 0; which < g_calls.size(); ++which)
        EXPECT_GT(g_calls[which], 0u) << which;
}

TEST(load_callbacks, callables_are_alive_in_every_call_and_gone_in_the_end)
{
    static std::atomic<int>      alive{0};
    static std::atomic<unsigned> calls{0};
    // What a callable brings along: whoever reads it after its end is found by a sanitizer.
    struct Luggage {
        std::vector<unsigned> weight = std::vector<unsigned>(8, 7);
        Luggage() { ++alive; }
        Luggage(Luggage &&other) noexcept : weight(std::move(other.weight)) { ++alive; }
        ~Luggage() { --alive; }
        bool is_there() const
        {
            ++calls;
            return weight.at(7) == 7;
        }
    };
    std::optional<Crowd> crowd;
    for (int life = 0; life < 2; ++life) {
        tarn_sdk::Broker broker;
        ASSERT_EQ(broker.init(), tarn_sdk::Result::Ok);
        ASSERT_EQ(broker.start(1883, 1000), tarn_sdk::Result::Ok);
        if (!crowd)
            crowd.emplace();
        std::vector<std::thread> changing;
        std::atomic<bool>        end{false};
        for (int i = 0; i < 2; ++i)
            changing.emplace_back([&] {
                while (!end) {
                    broker.on_event([here = Luggage()](auto...) { EXPECT_TRUE(here.is_there()); });
                    (void)broker.on_auth([here = Luggage()](auto...) { return here.is_there(); });
                    (void)broker.on_acl([&broker, here = Luggage()](auto...) {
                        (void)broker.on_acl(nullptr); // by itself, too
                        return here.is_there();
                    });
                    broker.on_event(nullptr);
                    (void)broker.on_auth(nullptr);
                    (void)broker.on_acl(nullptr);
                }
            });
        const double until = now_s() + load_seconds();
        for (unsigned turn = 0; now_s() < until; ++turn)
            query_and_kick(broker.get(), turn);
        end = true;
        for (std::thread &thread : changing)
            thread.join();
        (void)broker.on_auth([here = Luggage()](auto...) { return here.is_there(); });
        broker.on_event([here = Luggage()](auto...) { EXPECT_TRUE(here.is_there()); });
    } // ends under its clients
    crowd.reset();
    EXPECT_EQ(alive, 0);
    EXPECT_GT(calls, 0u);
}
