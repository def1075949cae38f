// Every route a message can travel, for every receiver, level, QoS and payload: bytes, counters, pending deliveries,
// files, records, callbacks and log lines against an oracle that knows the rules only.
#include "routes_run.h"

using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

void run_table(Route route, const std::vector<Payload> &payloads)
{
    Stage stage;
    for_each_row(payloads, [&](const Row &row) { stage.report(row.name(), run(stage, route, world_of(row, route))); });
}

} // namespace

TEST(routes_table, a_client_publishes) { run_table(Route::Publish, kPublishPayloads); }
TEST(routes_table, the_host_publishes) { run_table(Route::Host, kPublishPayloads); }
TEST(routes_table, a_will_is_sent) { run_table(Route::Will, kEncodedPayloads); }
TEST(routes_table, an_encoded_message_is_broadcast) { run_table(Route::Broadcast, kEncodedPayloads); }
TEST(routes_table, the_test_message_goes_out) { run_table(Route::Test, kTestPayload); }
