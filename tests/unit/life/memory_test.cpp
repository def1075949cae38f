// What thousands of clients leave behind when they are gone: the pages of the process, not only what the heap counts.
#include "api/api_internal.h"
#include "handler/packet_handler.h"
#include "life_fixture.h"

#include <fstream>

using namespace tarn;
using namespace tarn::test;

namespace {

double resident_mb()
{
    size_t        size = 0, resident = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

void say(mqtt_client_t *client, const Bytes &packet)
{
    EXPECT_EQ(packet_dispatch(client, packet.data(), static_cast<uint32_t>(packet.size())), 0);
}

constexpr int kClients  = 2000;
constexpr int kMessages = 10;

// Clients without sockets: what they get stays in their rings.
class Crowd {
public:
    void comes(Host &host)
    {
        for (int i = 0; i < kClients; ++i) {
            mqtt_client_t *const client = client_create(static_cast<uint32_t>(i), "10.0.0.1", 1000, &host.broker);
            ASSERT_NE(client, nullptr);
            clients_.push_back(client);
            say(client, connect_v4("dev" + std::to_string(i)));
            if (i > 0) // the first one publishes
                say(client, packet(0x82, u16(1) + prefixed("news") + wire("01")));
        }
    }
    void hears()
    {
        const std::string payload(1000, 'x');
        for (int i = 0; i < kMessages; ++i)
            say(clients_[0], packet(0x32, prefixed("news") + u16(7) + text(payload)));
    }
    void leaves()
    {
        for (mqtt_client_t *const client : clients_)
            if (client != clients_[0])
                say(client, packet(0xA2, u16(2) + prefixed("news")));
        for (mqtt_client_t *const client : clients_)
            client_close(client);
        clients_.clear();
    }

private:
    std::vector<mqtt_client_t *> clients_;
};

} // namespace

TEST(memory, is_given_back_when_thousands_of_clients_are_gone)
{
#ifdef TARN_SANITIZED
    GTEST_SKIP() << "the sanitizer's heap keeps what is freed";
#endif
    Handling     world(kClients);
    const double before      = resident_mb();
    double       after_first = 0;
    for (const int round : {1, 2}) {
        SCOPED_TRACE(round);
        Crowd crowd;
        crowd.comes(world.host);
        crowd.hears();
        const double peak = resident_mb();
        EXPECT_GT(peak, before + 50);
        crowd.leaves();
        EXPECT_EQ(g_pending_queue, nullptr);
        api::give_back_memory(); // sees who has left
        api::give_back_memory(); // and that nobody came in their places
        const double after = resident_mb();
        EXPECT_LT(after, before + (peak - before) / 10);
        if (round == 1)
            after_first = after;
        else
            EXPECT_LT(after, after_first * 1.1);
    }
}

TEST(memory, of_a_client_that_rests_is_a_page_or_two_of_its_record)
{
#ifdef TARN_SANITIZED
    GTEST_SKIP() << "the sanitizer's heap keeps what is freed";
#endif
    Handling     world(kClients);
    const double before = resident_mb();
    for (int i = 0; i < kClients; ++i) {
        mqtt_client_t *const client = client_create(static_cast<uint32_t>(i), "10.0.0.1", 1000, &world.host.broker);
        ASSERT_NE(client, nullptr);
        say(client, connect_v4("dev" + std::to_string(i)));
    }
    // One page of the record, another for one in four, where the id of the session is on the next; two of the ring, as
    // CONNACK stays in it here.
    const double pages = (resident_mb() - before) * (1 << 20) / static_cast<double>(sysconf(_SC_PAGESIZE)) / kClients;
    EXPECT_LT(pages, 3.8);
    EXPECT_GT(pages, 3.0) << "or this measures something else";
}
