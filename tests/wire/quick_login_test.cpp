// Which thread serves a login: one that keeps nobody waiting is served by the thread that received it.
#include "support/host.h"
#include "support/peer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <tarn_sdk_mqtt_broker.hpp>
#include <thread>
#include <vector>

using namespace tarn::test;

namespace {

const std::string kAtOnce = "tarn-io", kAside = "tarn-lane";

std::mutex  g_mutex;
std::string g_asked_on, g_told_on; // the threads of the last login and of its event

std::vector<std::string> g_places; // those of all logins
std::atomic<bool>        g_slow{false};

std::string this_thread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

bool on_auth(broker_t *, const char *, const char *username, const char *)
{
    if (g_slow)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::lock_guard lock(g_mutex);
    g_asked_on = this_thread();
    g_places.push_back(g_asked_on);
    return std::string_view(username) != "bad";
}

std::atomic<int>  g_watched{-1}; // the socket of the client that logs in
std::atomic<bool> g_answer_came_first;

void on_event(broker_t *, uint32_t kind, const char *)
{
    if (kind != BROKER_EVENT_CONNECTED)
        return;
    pollfd watched{g_watched, POLLIN, 0};
    g_answer_came_first = poll(&watched, 1, 5000) == 1;
    const std::lock_guard lock(g_mutex);
    g_told_on = this_thread();
}

// Where the host is told of a client that reads nothing until then.
std::string told_on(broker_t *broker)
{
    tarn_sdk_mqtt_broker_register_event_callback(broker, on_event);
    Peer client = Peer::tcp();
    g_watched   = client.fd();
    client.send(connect_packet(4, "a"));
    std::string thread;
    eventually([&] {
        const std::lock_guard lock(g_mutex);
        thread = g_told_on;
        return !thread.empty();
    });
    client.expect("20 02 00 00");
    return thread;
}

void standard_profile(broker_t *broker)
{
    EXPECT_EQ(tarn_sdk_mqtt_broker_stop(broker), TARN_OK);
    tarn_sdk_mqtt_broker_deinit(broker);
    EXPECT_EQ(tarn_sdk_mqtt_broker_set_profile(broker, TARN_PROFILE_STANDARD), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_init(broker), TARN_OK);
    EXPECT_EQ(tarn_sdk_mqtt_broker_start(broker, 1883, 100), TARN_OK);
}

struct quick_login : ::testing::Test {
    quick_login() { tarn_sdk_mqtt_broker_register_quick_auth_callback(host.broker(), on_auth); }

    // Where the login of this client is decided.
    std::string asked_for(std::string_view id, const Connect &options = {}, unsigned level = 4)
    {
        {
            const std::lock_guard lock(g_mutex);
            g_asked_on = "";
        }
        Peer client = Peer::tcp();
        client.connect(level, id, options);
        const std::lock_guard lock(g_mutex);
        return g_asked_on;
    }

    Host host;
};

} // namespace

TEST_F(quick_login, is_served_by_the_thread_that_received_it)
{
    EXPECT_EQ(asked_for("a"), kAtOnce);
    EXPECT_EQ(asked_for("a", {}, 5), kAtOnce);
    EXPECT_EQ(asked_for("a"), kAtOnce) << "though it was there before";
}

TEST_F(quick_login, is_refused_there_too)
{
    Peer client = Peer::tcp();
    client.send(connect_packet(5, "a", {.username = "bad"}));
    EXPECT_EQ(client.read_packet().at(3), 0x86);
    client.expect_closed();
    const std::lock_guard lock(g_mutex);
    EXPECT_EQ(g_asked_on, kAtOnce);
}

TEST_F(quick_login, goes_aside_where_a_session_is_kept_or_was)
{
    EXPECT_EQ(asked_for("kept", keep(4, false)), kAside);
    std::filesystem::create_directories("broker_data/session");
    std::ofstream("broker_data/session/by-hand.json") << "{}";
    EXPECT_EQ(asked_for("other"), kAtOnce) << "and notices what has changed";
    EXPECT_EQ(asked_for("by-hand"), kAside);
}

TEST_F(quick_login, goes_aside_without_an_id)
{
    EXPECT_EQ(asked_for(""), kAside); // those that the broker makes up may be alike
}

// Of a crowd that comes back at once, so that who is connected does not wait for all of them.
TEST_F(quick_login, goes_aside_in_a_round_that_is_long)
{
    g_slow = true;
    std::vector<Peer> crowd;
    for (int i = 0; i < 20; ++i)
        crowd.push_back(Peer::tcp());
    g_places.clear();
    crowd[0].send(connect_packet(4, "first")); // the round of this one takes 50 ms, and the next round has all others
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (int i = 1; i < 20; ++i)
        crowd[static_cast<size_t>(i)].send(connect_packet(4, "one-" + std::to_string(i)));
    for (Peer &peer : crowd)
        peer.expect("20 02 00 00");
    const std::lock_guard lock(g_mutex);
    EXPECT_EQ(std::count(g_places.begin(), g_places.end(), kAtOnce), 2);
    EXPECT_EQ(std::count(g_places.begin(), g_places.end(), kAside), 18);
}

TEST_F(quick_login, is_none_once_the_callback_was_registered_as_another)
{
    tarn_sdk_mqtt_broker_register_auth_callback(host.broker(), on_auth);
    EXPECT_EQ(asked_for("a"), kAside);
    tarn_sdk_mqtt_broker_register_quick_auth_callback(host.broker(), on_auth);
    EXPECT_EQ(asked_for("a"), kAtOnce);
    tarn_sdk_mqtt_broker_register_auth_callback(
        host.broker(), [](broker_t *broker, auto... texts) { return on_auth(broker, texts...); });
    EXPECT_EQ(asked_for("a"), kAside);
    tarn_sdk_mqtt_broker_register_auth_callback(nullptr, on_auth); // of no instance
    tarn_sdk_mqtt_broker_register_quick_auth_callback(nullptr, on_auth);
    EXPECT_EQ(asked_for("a"), kAside);
}

TEST_F(quick_login, has_its_answer_before_the_host_is_told)
{
    EXPECT_EQ(told_on(host.broker()), kAtOnce);
    EXPECT_TRUE(g_answer_came_first);
}

TEST_F(quick_login, of_the_standard_profile_may_keep_its_session)
{
    standard_profile(host.broker());
    tarn_sdk_mqtt_broker_register_quick_auth_callback(host.broker(), on_auth); // deinit took it back
    EXPECT_EQ(asked_for("a"), kAtOnce);
    EXPECT_EQ(asked_for("kept", keep(4, false)), kAtOnce);
    EXPECT_EQ(asked_for("kept", keep(4, true)), kAtOnce);
    tarn_sdk_mqtt_broker_register_auth_callback(host.broker(), on_auth);
    EXPECT_EQ(asked_for("a"), kAside);
}

// Nobody is asked: then a host that listens may take its time over CONNECTED.
TEST(login, without_an_authentication_callback_is_quick_where_nobody_is_told)
{
    Host host;
    EXPECT_EQ(told_on(host.broker()), kAside);
    EXPECT_TRUE(g_answer_came_first);
}

TEST(login, is_quick_through_the_cpp_header_too)
{
    tarn_sdk::Broker broker;
    ASSERT_EQ(broker.init(), tarn_sdk::Result::Ok);
    ASSERT_EQ(broker.on_quick_auth([](auto id, auto user, auto password) {
        return on_auth(nullptr, std::string(id).c_str(), std::string(user).c_str(), std::string(password).c_str());
    }),
              tarn_sdk::Result::Ok);
    ASSERT_EQ(broker.start(), tarn_sdk::Result::Ok);
    Peer client = Peer::tcp();
    client.connect_v4("a");
    const std::lock_guard lock(g_mutex);
    EXPECT_EQ(g_asked_on, kAtOnce);
}
