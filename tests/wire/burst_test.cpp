// Clients that send much at once and leave: what reached the broker before they closed is handled, however slow the
// host and the disk are.
#include "support/child.h"
#include "support/host.h"
#include "support/peer.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

using namespace tarn::test;

namespace {

constexpr int  kRetained    = 200;
constexpr int  kKept        = 60;
constexpr long kPayload     = 100;
constexpr int  kLinger_ms   = 20;
constexpr int  kAllowing_ms = 2;     // so that a few packets outlast a connection's turn in a round
constexpr int  kSlow_ms     = 60000; // for all of them, on a slow disk

enum class Ending { Closed, Reset };

void PrintTo(Ending ending, std::ostream *out)
{
    *out << (ending == Ending::Closed ? "closed" : "reset");
}

// Takes its time to allow a publication, and has a client that hears of wills.
class SlowHost {
public:
    SlowHost()
    {
        tarn_sdk_mqtt_broker_set_log_level(host_.broker(), 3);
        tarn_sdk_mqtt_broker_register_acl_callback(
            host_.broker(), [](broker_t *, const char *, const char *, uint8_t action, mqtt_client_t *) {
                if (action == BROKER_ACL_PUBLISH)
                    pause_ms(kAllowing_ms);
                return true;
            });
        heir_.connect_v4("heir").subscribe("will");
    }
    // Until everything of this client is handled; and it leaves no will.
    void expect_goodbye_of(const std::string &id)
    {
        EXPECT_TRUE(wait_until([&] { return host_.client_ids().find(id) == std::string::npos; }, kSlow_ms));
        heir_.ping(); // the will would come first
    }
    long retained()
    {
        const std::string topics = host_.retained_topics();
        return std::count(topics.begin(), topics.end(), '\n');
    }

private:
    Host host_;
    Peer heir_ = Peer::tcp();
};

struct burst : testing::TestWithParam<Ending> {
    SlowHost host;
};

// Everything sent has reached the other side's kernel, which a reset does not take back.
bool all_arrived(const Peer &peer)
{
    int waiting = 0;
    return wait_until([&] { return ioctl(peer.fd(), SIOCOUTQ, &waiting) == 0 && waiting == 0; });
}

// Sends all at once and is gone a moment later, with the answers unread.
void send_and_leave(const Bytes &all, Ending ending)
{
    Peer sender = Peer::tcp();
    sender.connect_v4("sender", {.will = Will{.topic = "will", .payload = "gone"}});
    sender.send(all + disconnect_packet(4));
    EXPECT_TRUE(all_arrived(sender));
    if (ending == Ending::Closed)
        pause_ms(kLinger_ms);
    ending == Ending::Reset ? sender.reset() : sender.hang_up();
}

// Its start, read as the length of properties, leads beyond its end.
std::string payload_of(unsigned n)
{
    const std::string number = std::to_string(n);
    return std::string(static_cast<size_t>(kPayload) - number.size(), 'x') + number;
}

} // namespace

TEST_P(burst, of_retained_messages_and_a_disconnect)
{
    Bytes all;
    for (unsigned i = 0; i < kRetained; ++i)
        all = all + publish_packet(4, "k/" + std::to_string(i), payload_of(i), {.qos = 1, .retain = true, .id = i + 1});
    send_and_leave(all, GetParam());
    host.expect_goodbye_of("sender");
    EXPECT_EQ(host.retained(), kRetained);
}

TEST_P(burst, of_messages_for_an_absent_client)
{
    Peer absent = Peer::tcp();
    absent.connect_v4("absent", {.clean = false}).subscribe("t", 1).disconnect();
    Bytes all;
    for (unsigned i = 0; i < kKept; ++i)
        all = all + publish_packet(4, "t", "x", {.qos = 1, .id = i + 1}) + publish_packet(4, "nobody", payload_of(i));
    send_and_leave(all, GetParam());
    host.expect_goodbye_of("sender");

    const std::string kept  = file_text("broker_data/message/absent.json");
    long              count = 0;
    for (size_t at = kept.find("msgid"); at != std::string::npos; at = kept.find("msgid", at + 1))
        ++count;
    EXPECT_EQ(count, kKept) << kept;
}

TEST(burst_of_paho, reaches_the_store_whole)
{
#ifdef TARN_PAHO_BURST
    SlowHost host;
    Child    client("paho", {TARN_PAHO_BURST, std::to_string(kRetained)});
    EXPECT_EQ(client.wait(kSlow_ms), 0) << client.errors();
    host.expect_goodbye_of("paho");
    EXPECT_EQ(host.retained(), kRetained);
#else
    GTEST_SKIP() << "built without libpaho-mqtt-dev";
#endif
}

INSTANTIATE_TEST_SUITE_P(, burst, testing::Values(Ending::Closed, Ending::Reset), testing::PrintToStringParamName());
