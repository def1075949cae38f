// Every route a message can travel, for every receiver, level, QoS and payload: bytes, counters, pending deliveries,
// files, records, callbacks and log lines as the tables of routes_rules.h say.
#include "routes_run.h"

using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

// Sanitizers make a row ten to fifty times as slow; a part of the rows, of every kind, shows them all there is.
#ifdef TARN_SANITIZED
constexpr int kEveryRow = 7;
#else
constexpr int kEveryRow = 1;
#endif

void run_table(Route route, const std::vector<Payload> &payloads)
{
    Stage stage;
    int   at = 0;
    for_each_row(payloads, [&](const Row &row) {
        if (at++ % kEveryRow == 0)
            stage.report(row.name(), run(stage, route, world_of(row, route)));
    });
}

} // namespace

// The oracle of itself: what it counts byte by byte is the room that a delivery is promised to have.
TEST(routes_table, a_delivery_has_the_room_it_is_promised)
{
    for (unsigned level : {4u, 5u})
        for (unsigned qos : {0u, 1u, 2u})
            for (uint32_t expiry_s : {0u, 60u})
                for (size_t topic : {1u, 256u}) {
                    const auto code = [&](size_t more) {
                        const size_t payload = room_for(level, qos, expiry_s) - topic + more;
                        return encode(level,
                                      {std::string(topic, 't'), repeat(0xFF, payload), qos, false, false, expiry_s}, 1)
                            .code;
                    };
                    EXPECT_EQ(code(0), 0);
                    EXPECT_EQ(code(1), -3);
                }
}

TEST(routes_table, a_client_publishes)
{
    run_table(Route::Publish, kPublishPayloads);
}
TEST(routes_table, the_host_publishes)
{
    run_table(Route::Host, kPublishPayloads);
}
TEST(routes_table, a_will_is_sent)
{
    run_table(Route::Will, kEncodedPayloads);
}
TEST(routes_table, an_encoded_message_is_broadcast)
{
    run_table(Route::Broadcast, kEncodedPayloads);
}
TEST(routes_table, the_test_message_goes_out)
{
    run_table(Route::Test, kTestPayload);
}
