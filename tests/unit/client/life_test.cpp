#include "client_fixture.h"

#include "client/record_fields.h"

using namespace tarn;
using namespace tarn::test;
using client::Cell;
using client::Field;
using client::Guard;
using client::When;

namespace {

uint8_t *bytes_of(mqtt_client_t &client, const Field &field)
{
    return reinterpret_cast<uint8_t *>(&client) + field.at;
}

// Fields that the moment keeps or zeroes, and that may hold anything meanwhile.
bool is_tried(const Field &field, When when)
{
    const bool takes_anything = field.guard == Guard::Word || field.guard == Guard::Id || field.guard == Guard::Will;
    return takes_anything && field[when] != Cell::Set;
}

void fill_tried(mqtt_client_t &client, When when)
{
    for (const Field &field : client::kRecord)
        if (is_tried(field, when)) {
            memset(bytes_of(client, field), 'Z', field.size);
            if (field.is_bytes)
                bytes_of(client, field)[field.size - 1] = 0; // a text
        }
}

void expect_as_the_table_says(mqtt_client_t &client, When when)
{
    for (const Field &field : client::kRecord)
        if (is_tried(field, when)) {
            EXPECT_EQ(bytes_of(client, field)[0], field[when] == Cell::Kept ? 'Z' : 0) << field.name;
        }
}

} // namespace

TEST(life, a_new_client_begins_as_the_table_says)
{
    const Manager  manager;
    mqtt_client_t &record = *log_in(1, "dev1");
    client_close(&record);
    fill_tried(record, When::Create);
    ASSERT_EQ(client_create(2, "", 0, nullptr), &record);
    expect_as_the_table_says(record, When::Create);
}

TEST(life, a_release_leaves_what_the_table_says)
{
    const Manager  manager;
    mqtt_client_t &record = *log_in(1, "dev1");
    {
        const client_ref pin(&record); // so that nothing is wiped yet
        fill_tried(record, When::Release);
        record.state = CLIENT_CLOSED;
        pool_free(&record);
        expect_as_the_table_says(record, When::Release);
    }
}

TEST(life, a_manager_that_goes_down_leaves_in_a_held_record_what_the_table_says)
{
    const Manager    manager;
    mqtt_client_t   &record = *log_in(1, "dev1");
    const client_ref pin(&record);
    fill_tried(record, When::TakeDown);
    client_mgr_deinit();
    expect_as_the_table_says(record, When::TakeDown);
}

TEST(life, the_last_unpin_wipes_what_the_table_says)
{
    const Manager  manager;
    mqtt_client_t &record = *log_in(1, "dev1");
    client_ref     pin(&record);
    client_close(&record);
    fill_tried(record, When::Wipe);
    pin.reset();
    expect_as_the_table_says(record, When::Wipe);
    record.used = 0; // as it was
}

TEST(life, an_edge_is_taken_out_of_its_own_states_only)
{
    struct Row {
        const client::Edge &edge;
        std::vector<int>    from;
    };
    const Row rows[] = {
        {client::kCreate, {0, 1, 2, 3, 4, 5, 77}},
        {client::kLogIn, {0, 1, 2}},
        {client::kGoOffline, {0, 1, 2, 3, 5, 77}},
        {client::kEndWait, {3}},
        {client::kRelease, {3, 4}},
        {client::kTakeDown, {0, 1, 2, 3, 4, 5, 77}},
    };
    OwnRecord own;
    for (const Row &row : rows)
        for (const int state : {0, 1, 2, 3, 4, 5, 77}) {
            const bool leaves = testing::Matches(testing::Contains(state))(row.from);
            own->state        = static_cast<uint32_t>(state);
            EXPECT_EQ(client::step(*own, row.edge), leaves) << state << " to " << row.edge.to;
            EXPECT_EQ(own->state, leaves ? row.edge.to : static_cast<uint32_t>(state));
        }
}

// Its close was under way on another thread, say, and would have left it waiting for a will that is out.
TEST(life, a_record_that_was_taken_down_during_its_close_stays_closed)
{
    const Manager    manager;
    mqtt_client_t   &record = *log_in(1, "dev1");
    const client_ref pin(&record);
    client_set_will_msg(&record, "t", text("x").data(), 1, 0, 0);
    g_calls.on_will = [](mqtt_client_t &) { client_mgr_deinit(); };
    client_close(&record);
    g_calls.on_will = nullptr;
    EXPECT_EQ(record.state, uint32_t{CLIENT_CLOSED});
    EXPECT_TRUE(is_released(&record));
}
