// Payloads that deliveries share, so many that places of the table hold more than one.
#include "qos/qos_internal.h"
#include "qos_fixture.h"

#include <algorithm>
#include <random>
#include <string>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr size_t kMessages     = 4000;
constexpr size_t kPayloadBytes = 300;
constexpr int    kReceivers    = 2; // of each

std::string payload_of(size_t message)
{
    std::string payload = std::to_string(message);
    payload.resize(kPayloadBytes, '.');
    return payload;
}

std::span<const uint8_t> bytes_of(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

std::string payload_in(const qos_packet_t &entry)
{
    return {reinterpret_cast<const char *>(entry.payload), entry.payload_len};
}

} // namespace

TEST(shared_payload, of_many_each_goes_with_its_last_delivery)
{
    std::vector<qos_packet_t> entries(kMessages * kReceivers);
    for (size_t message = 0; message < kMessages; ++message) {
        const std::string payload = payload_of(message);
        qos::PayloadCopy  copy;
        ScopedLock        lock(g_queue_mutex);
        for (int receiver = 0; receiver < kReceivers; ++receiver)
            ASSERT_TRUE(qos::put_payload(entries[message * kReceivers + receiver], bytes_of(payload), &copy, 0));
    }
    std::vector<size_t> order(entries.size());
    for (size_t at = 0; at < order.size(); ++at)
        order[at] = at;
    std::shuffle(order.begin(), order.end(), std::mt19937(1));

    ScopedLock       lock(g_queue_mutex);
    std::vector<int> users(kMessages, kReceivers);
    size_t           shared = kMessages;
    EXPECT_EQ(qos::bytes_taken(), shared * kPayloadBytes);
    for (const size_t at : order) {
        const size_t message = at / kReceivers;
        ASSERT_EQ(payload_in(entries[at]), payload_of(message));
        qos::free_payload(entries[at]);
        shared -= --users[message] == 0;
        ASSERT_EQ(qos::bytes_taken(), shared * kPayloadBytes);
    }
}
