// tarn_sdk_mqtt_broker.hpp: whose the instance and the callables are, and for how long.
#include "support/peer.h"
#include "support/process_state.h"

#include <tarn_sdk_mqtt_broker.hpp>

#include <atomic>
#include <cstring>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <vector>

using namespace tarn::test;
using std::string_view;
using tarn_sdk::Action;
using tarn_sdk::Broker;
using tarn_sdk::Event;
using tarn_sdk::Result;
using testing::ElementsAre;

static thread_local bool t_memory_is_out = false;

// What the header allocates with. Matches the operator delete that is there already.
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return t_memory_is_out ? nullptr : ::operator new(size);
}

namespace {

struct NoMemory {
    NoMemory() { t_memory_is_out = true; }
    ~NoMemory() { t_memory_is_out = false; }
};

struct Serving {
    Broker broker;
    Serving()
    {
        EXPECT_EQ(broker.init(), Result::Ok);
        EXPECT_EQ(broker.start(1883, 100), Result::Ok);
    }
};

struct cpp_host : testing::Test, Serving {};

// What a callable holds: as long as somebody else does, it is alive.
using Token = std::shared_ptr<int>;
Token new_token()
{
    return std::make_shared<int>(0);
}
bool is_released(const Token &token)
{
    return wait_until([&] { return token.use_count() == 1; });
}

// Lets a callable wait inside a call.
class Gate {
public:
    void pass()
    {
        waiting_ = true;
        EXPECT_TRUE(wait_until([&] { return open_.load(); }));
    }
    void expect_somebody() const
    {
        EXPECT_TRUE(wait_until([&] { return waiting_.load(); }));
    }
    void open() { open_ = true; }

private:
    std::atomic<bool> waiting_{false}, open_{false};
};

void expect_service()
{
    Peer::tcp().connect_v4("somebody").ping();
}

const auto kEverybody = [](auto...) { return true; };

} // namespace

TEST(cpp_results, are_those_of_c_with_their_texts)
{
    EXPECT_STREQ(to_text(Result::Ok), "OK");
    EXPECT_STREQ(to_text(Result::InitFailed), "Init failed");
    EXPECT_STREQ(to_text(Result::InvalidParameter), "Invalid parameter");
    EXPECT_STREQ(to_text(Result::ResourceError), "Resource error");
    EXPECT_STREQ(to_text(Result::NotRunning), "Not running");
    EXPECT_STREQ(to_text(Result::NotFound), "Not found");
    EXPECT_STREQ(to_text(Result::Denied), "Denied");
    EXPECT_STREQ(to_text(Result::Busy), "Busy (already running)");
    EXPECT_STREQ(to_text(Result::Timeout), "Timeout");
    EXPECT_STREQ(to_text(Result{1}), "Unknown error");
    EXPECT_STREQ(Broker::version(), tarn_sdk_mqtt_broker_version());
}

TEST(cpp_broker, that_is_empty_answers_as_c_does_for_null)
{
    Broker broker;
    EXPECT_TRUE(broker);
    const Broker taken(std::move(broker));
    EXPECT_TRUE(taken);
    EXPECT_FALSE(broker);
    EXPECT_EQ(broker.get(), nullptr);
    char                 text[10];
    tarn_sdk::ClientInfo info;
    EXPECT_EQ(broker.init(), Result::InvalidParameter);
    EXPECT_EQ(broker.start(), Result::InvalidParameter);
    EXPECT_EQ(broker.stop(), Result::InvalidParameter);
    EXPECT_FALSE(broker.is_running());
    EXPECT_EQ(broker.set_keepalive_timeout(100), Result::InvalidParameter);
    EXPECT_EQ(broker.set_max_packet_size(1000), Result::InvalidParameter);
    EXPECT_EQ(broker.set_profile(tarn_sdk::Profile::Standard), Result::InvalidParameter);
    EXPECT_EQ(broker.set_limit(tarn_sdk::Limit::Sessions, 1), Result::InvalidParameter);
    EXPECT_EQ(broker.client_info("a", info), Result::InvalidParameter);
    EXPECT_EQ(broker.kick_client("a"), Result::InvalidParameter);
    EXPECT_EQ(broker.on_event(kEverybody), Result::InvalidParameter);
    EXPECT_EQ(broker.on_auth(kEverybody), Result::InvalidParameter);
    EXPECT_EQ(broker.on_acl(kEverybody), Result::InvalidParameter);
    EXPECT_EQ(broker.on_acl(nullptr), Result::InvalidParameter);
    EXPECT_EQ(broker.client_id_list(text, sizeof text), Result::Ok); // these do not use it
    EXPECT_EQ(broker.online_count(), 0u);
    const Token token = new_token();
    EXPECT_EQ(broker.on_auth([token](auto...) { return true; }), Result::InvalidParameter);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(cpp_broker, passes_settings_on)
{
    Broker broker;
    EXPECT_EQ(broker.set_keepalive_timeout(3601), Result::InvalidParameter);
    EXPECT_EQ(broker.set_keepalive_timeout(3600), Result::Ok);
    EXPECT_EQ(broker.get()->keepalive_timeout, 3600);
    EXPECT_EQ(broker.set_max_packet_size(255), Result::InvalidParameter);
    EXPECT_EQ(broker.set_max_packet_size(256), Result::Ok);
    EXPECT_EQ(broker.get()->max_packet_size, 256);
    EXPECT_EQ(broker.set_profile(tarn_sdk::Profile{2}), Result::InvalidParameter);
    EXPECT_EQ(broker.set_profile(tarn_sdk::Profile::Native), Result::Ok);
    EXPECT_EQ(broker.set_limit(tarn_sdk::Limit::Subscriptions, 0), Result::InvalidParameter);
    EXPECT_EQ(broker.set_limit(tarn_sdk::Limit::Subscriptions, 1), Result::Ok);
    EXPECT_EQ(broker.init(), Result::Ok);
    EXPECT_EQ(broker.start(0, 100), Result::InvalidParameter);
    EXPECT_EQ(broker.start(8883, 7), Result::Ok);
    EXPECT_EQ(broker.get()->port, 8883);
    EXPECT_EQ(broker.get()->max_clients, 7);
    EXPECT_TRUE(broker.is_running());
    EXPECT_EQ(broker.set_max_packet_size(256), Result::Busy);
    EXPECT_EQ(broker.set_profile(tarn_sdk::Profile::Standard), Result::Busy);
    tarn_sdk::SessionInfo session;
    EXPECT_EQ(broker.session_info("a", session), Result::NotRunning);
    EXPECT_EQ(broker.stop(), Result::Ok);
    EXPECT_FALSE(broker.is_running());
    expect_service(); // until the end
}

TEST_F(cpp_host, asks_and_acts)
{
    Peer a = Peer::tcp();
    a.connect_v5("a").subscribe("t", 1);
    char                 text[100];
    tarn_sdk::ClientInfo info;
    EXPECT_EQ(broker.client_id_list(text, sizeof text), Result::Ok);
    EXPECT_STREQ(text, "a");
    EXPECT_EQ(broker.online_count(), 1u);
    EXPECT_EQ(broker.client_info("a", info), Result::Ok);
    EXPECT_EQ(info.port, a.local_port());
    EXPECT_EQ(broker.client_info("b", info), Result::NotFound);

    const unsigned char bytes[] = {'h', 'i'};
    EXPECT_EQ(broker.publish("t", "hello", {1}), Result::Ok);
    a.acknowledge(0x40, a.expect_publish("t", "hello", {.qos = 1}));
    EXPECT_EQ(broker.publish_bytes("t", bytes, sizeof bytes), Result::Ok);
    a.expect_publish("t", "hi");
    EXPECT_EQ(broker.publish("t", ""), Result::InvalidParameter);
    EXPECT_EQ(broker.publish("t", "x", {3}), Result::InvalidParameter);
    EXPECT_EQ(broker.publish("kept", "hello", {0, true, 60}), Result::Ok);
    EXPECT_EQ(broker.retain_topic_list(text, sizeof text), Result::Ok);
    EXPECT_STREQ(text, "kept\n");
    EXPECT_EQ(broker.clear_retain("kept"), Result::Ok);
    EXPECT_EQ(broker.clear_retain("kept"), Result::NotFound);

    a.publish("x", "counted");
    a.ping();
    EXPECT_EQ(broker.stats().messages, 1u);
    EXPECT_EQ(broker.stats().online, 1u);
    EXPECT_EQ(broker.kick_client("a"), Result::Ok);
    a.expect("E0 02 | 98 00");
    a.expect_closed();
    EXPECT_EQ(broker.kick_client("a"), Result::NotFound);
}

// ---- lifetime of the instance

TEST(cpp_life, ends_with_its_scope_and_begins_again)
{
    int threads = 0;
    for (int life = 0; life < 3; ++life) {
        std::optional<Peer> client;
        {
            Broker broker;
            ASSERT_EQ(broker.init(), Result::Ok);
            ASSERT_EQ(broker.start(), Result::Ok);
            client.emplace(Peer::tcp()).connect_v4("a").ping();
        }
        client->expect_closed();
        if (life == 0)
            threads = thread_count(); // the one that waits for connections is left, and what a sanitizer adds
        EXPECT_LE(thread_count(), threads);
    }
}

TEST(cpp_life, moves_with_its_callables)
{
    int                   asked = 0;
    std::optional<Broker> first(std::in_place);
    ASSERT_EQ(first->init(), Result::Ok);
    ASSERT_EQ(first->on_auth([&](auto...) { return ++asked; }), Result::Ok);
    ASSERT_EQ(first->start(), Result::Ok);
    Broker second(std::move(*first));
    first.reset();
    expect_service();
    EXPECT_EQ(asked, 1);
    Broker third;
    Peer   client = Peer::tcp();
    client.connect_v4("a");
    third = std::move(second); // whose own instance goes, without a stir
    expect_service();
    client.ping();
    EXPECT_EQ(asked, 3);
    third = Broker();
    client.expect_closed();
}

TEST(cpp_life, of_one_that_never_served_does_not_disturb_the_one_that_does)
{
    const Serving serving;
    Peer          client = Peer::tcp();
    client.connect_v4("a");
    {
        Broker idle;
        EXPECT_EQ(idle.start(), Result::ResourceError);
    }
    {
        Broker other;
        EXPECT_EQ(other.init(), Result::Ok);
        EXPECT_EQ(other.start(), Result::ResourceError);
    }
    client.ping();
    expect_service();
}

TEST(cpp_life, of_one_that_was_only_initialised_leaves_no_thread)
{
    std::thread([] {}).join(); // a sanitizer adds one of its own
    const int threads = thread_count();
    for (int i = 0; i < 3; ++i) {
        Broker broker;
        EXPECT_EQ(broker.init(), Result::Ok);
        EXPECT_EQ(broker.start(0), Result::InvalidParameter);
    }
    EXPECT_EQ(thread_count(), threads);
}

TEST(cpp_life, does_not_begin_without_memory)
{
    std::optional<Broker> broker;
    {
        const NoMemory out;
        broker.emplace();
    }
    EXPECT_FALSE(*broker);
    EXPECT_EQ(broker->init(), Result::InvalidParameter);
}

// ---- callables

TEST_F(cpp_host, callables_get_what_the_callbacks_get)
{
    std::mutex               mutex;
    std::vector<std::string> seen;
    const auto               see = [&](std::string line) {
        const std::lock_guard lock(mutex);
        seen.push_back(std::move(line));
    };
    EXPECT_EQ(broker.on_auth([&](string_view id, string_view user, string_view password) {
        see("auth " + std::string(id) + " " + std::string(user) + " " + std::string(password));
        return true;
    }),
              Result::Ok);
    EXPECT_EQ(broker.on_acl([&](string_view id, string_view topic, Action action) {
        see(std::string(id) + (action == Action::Publish ? " publishes " : " subscribes ") + std::string(topic));
        return topic != "no";
    }),
              Result::Ok);
    EXPECT_EQ(broker.on_event([&](Event event, string_view text) {
        see("event " + std::to_string(static_cast<unsigned>(event)) + " " + std::string(text));
    }),
              Result::Ok);
    Peer a = Peer::tcp();
    a.connect_v4("a", {.username = "me", .password = "secret"}).subscribe("t", 1);
    a.send(subscribe_packet(4, 9, "no", 0));
    a.expect("90 03 | 00 09 | 80");
    a.publish("t", "hello", {.qos = 2});
    a.unsubscribe("t").disconnect();
    EXPECT_TRUE(wait_until([&] {
        const std::lock_guard lock(mutex);
        return seen.size() == 9;
    }));
    const std::lock_guard lock(mutex);
    EXPECT_THAT(seen, ElementsAre("auth a me secret", R"(event 0 {"clientId":"a","topic":"","qos":0})",
                                  "a subscribes t", R"(event 3 {"clientId":"a","topic":"t","qos":1})",
                                  "a subscribes no", "a publishes t", R"(event 2 {"clientId":"a","topic":"t","qos":2})",
                                  R"(event 4 {"clientId":"a","topic":"t","qos":0})",
                                  R"(event 1 {"clientId":"a","topic":"","qos":0})"));
}

TEST_F(cpp_host, a_callable_goes_when_it_is_replaced_taken_back_or_ended)
{
    const Token first = new_token(), second = new_token(), third = new_token();
    EXPECT_EQ(broker.on_auth([first](auto...) { return true; }), Result::Ok);
    EXPECT_EQ(first.use_count(), 2);
    EXPECT_EQ(broker.on_auth([second](auto...) { return false; }), Result::Ok);
    EXPECT_EQ(first.use_count(), 1);
    Peer refused = Peer::tcp();
    refused.send(connect_packet(5, "a"));
    refused.expect("20 0B | 00 86 | 08 21 00 00 27 00 00 00 00");
    EXPECT_EQ(broker.on_auth(nullptr), Result::Ok);
    EXPECT_TRUE(is_released(second)); // its call may be about to return
    EXPECT_EQ(broker.get()->auth_cb, nullptr);
    expect_service();
    EXPECT_EQ(broker.on_auth([third](auto...) { return true; }), Result::Ok);
    EXPECT_EQ(broker.on_acl([third](auto...) { return true; }), Result::Ok);
    EXPECT_EQ(broker.on_event([third](auto...) {}), Result::Ok);
    EXPECT_EQ(third.use_count(), 4);
    broker = Broker();
    EXPECT_EQ(third.use_count(), 1);
}

TEST_F(cpp_host, what_is_no_callable_changes_nothing)
{
    EXPECT_EQ(broker.on_auth([](auto...) { return false; }), Result::Ok);
    bool (*const null)(string_view, string_view, string_view) = nullptr;
    EXPECT_EQ(broker.on_auth(null), Result::InvalidParameter);
    EXPECT_EQ(broker.on_auth(std::function<bool(string_view, string_view, string_view)>()), Result::InvalidParameter);
    {
        const Token    token = new_token();
        const NoMemory out;
        EXPECT_EQ(broker.on_auth([token](auto...) { return true; }), Result::ResourceError);
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(broker.on_auth(kEverybody), Result::ResourceError);
    }
    Peer refused = Peer::tcp();
    refused.send(connect_packet(4, "a"));
    refused.expect("20 02 | 00 00");
    refused.expect_closed();
}

TEST_F(cpp_host, a_call_under_way_keeps_its_callable)
{
    Gate              gate;
    const Token       token = new_token();
    std::atomic<bool> kept{false};
    EXPECT_EQ(broker.on_auth([&gate, &kept, token](auto...) {
        gate.pass();
        kept = token.use_count() == 2; // this one and the test's
        return false;
    }),
              Result::Ok);
    Peer old = Peer::tcp(), next = Peer::tcp();
    old.send(connect_packet(5, "a"));
    gate.expect_somebody();
    EXPECT_EQ(broker.on_auth(kEverybody), Result::Ok); // does not wait
    EXPECT_EQ(token.use_count(), 2);
    gate.open();
    old.expect("20 0B | 00 86 | 08 21 00 00 27 00 00 00 00");
    EXPECT_TRUE(kept);
    next.connect_v4("b");
    EXPECT_TRUE(is_released(token));
}

TEST_F(cpp_host, a_callable_may_replace_and_take_back_itself)
{
    const Token       token = new_token();
    std::atomic<int>  told{0};
    std::atomic<long> users{0};
    EXPECT_EQ(broker.on_event([&, token](Event, string_view) {
        EXPECT_EQ(broker.on_event([&](Event, string_view) {
            ++told;
            EXPECT_EQ(broker.on_event(nullptr), Result::Ok);
        }),
                  Result::Ok);
        users = token.use_count();
        ++told;
    }),
              Result::Ok);
    Peer client = Peer::tcp();
    client.connect_v4("a").subscribe("t").subscribe("u");
    client.ping();
    EXPECT_EQ(told, 2);
    EXPECT_EQ(users, 2);
    EXPECT_EQ(token.use_count(), 1);
}

// Between the C callback and its callable the host may take either away.
TEST(cpp_callbacks, without_a_callable_allow_and_without_a_broker_refuse)
{
    std::optional<Broker> broker(std::in_place);
    broker_t *const       instance = broker->get();
    EXPECT_TRUE(tarn_sdk::detail::on_auth(instance, "a", "", ""));
    EXPECT_TRUE(tarn_sdk::detail::on_acl(instance, "a", "t", 0, nullptr));
    tarn_sdk::detail::on_event(instance, 0, "");
    broker.reset();
    EXPECT_FALSE(tarn_sdk::detail::on_auth(instance, "a", "", ""));
    EXPECT_FALSE(tarn_sdk::detail::on_acl(instance, "a", "t", 0, nullptr));
    tarn_sdk::detail::on_event(instance, 0, "");
}

// ---- the end inside a callable

struct cpp_end_in : testing::TestWithParam<const char *> {};

TEST_P(cpp_end_in, a_callable)
{
    const string_view       where = GetParam();
    std::unique_ptr<Broker> broker(new Broker);
    const Token             token = new_token();
    std::atomic<bool>       ended{false};
    const auto              end = [&, token](auto...) { // what it holds is there to its last line
        broker.reset();
        EXPECT_EQ(token.use_count(), 3);
        ended = true;
        return true;
    };
    ASSERT_EQ(broker->init(), Result::Ok);
    if (where == "auth") {
        ASSERT_EQ(broker->on_auth(end), Result::Ok);
    } else if (where == "acl") {
        ASSERT_EQ(broker->on_acl(end), Result::Ok);
    } else {
        ASSERT_EQ(broker->on_event(end), Result::Ok);
    }
    ASSERT_EQ(broker->start(), Result::Ok);
    Peer client = Peer::tcp();
    client.send(connect_packet(4, "a") + publish_packet(4, "t", "hello"));
    EXPECT_TRUE(wait_until([&] { return ended.load(); }));
    EXPECT_TRUE(wait_until([&] { return token.use_count() == 2; })); // the test's two
    const Serving next;
    expect_service();
}

INSTANTIATE_TEST_SUITE_P(of, cpp_end_in, testing::Values("auth", "acl", "event"),
                         [](const auto &where) { return std::string(where.param); });

TEST(cpp_end, on_the_hosts_own_thread_inside_a_kick)
{
    std::unique_ptr<Broker> broker(new Broker);
    const auto              host = std::this_thread::get_id();
    ASSERT_EQ(broker->init(), Result::Ok);
    ASSERT_EQ(broker->start(), Result::Ok);
    Peer client = Peer::tcp();
    client.connect_v4("a", {.will = Will{"w", "gone"}}).ping();
    broker->on_event([&](Event event, string_view) {
        EXPECT_EQ(event, Event::Will);
        EXPECT_EQ(std::this_thread::get_id(), host);
        broker.reset();
    });
    EXPECT_EQ(broker->kick_client("a"), Result::Ok);
    EXPECT_EQ(broker, nullptr);
    client.expect("E0 00");
    client.expect_closed();
    const Serving next;
    expect_service();
}

// The destructor closes the clients, whose wills tell, before the callables go.
TEST(cpp_end, tells_of_the_last_wills)
{
    std::vector<std::string> told;
    {
        Broker broker;
        ASSERT_EQ(broker.init(), Result::Ok);
        ASSERT_EQ(broker.start(), Result::Ok);
        Peer client = Peer::tcp();
        client.connect_v4("a", {.will = Will{"w", "gone"}}).ping();
        broker.on_event([&](Event, string_view text) { told.emplace_back(text); });
        broker.stop();
    }
    EXPECT_THAT(told, ElementsAre(R"({"clientId":"a","topic":"w","qos":0})"));
}
