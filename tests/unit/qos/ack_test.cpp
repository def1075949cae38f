#include "qos_fixture.h"
#include "support/log_lines/qos.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

enum { PUBACK = 4, PUBREC, PUBREL, PUBCOMP };

} // namespace

TEST(ack, needs_a_client_and_an_identifier)
{
    RingClient client;
    LogCapture log;
    EXPECT_EQ(qos_reliable_handle_ack(nullptr, 1, PUBACK), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 0, PUBACK), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::ack_without_client(), logged::ack_without_client()));
}

TEST(ack, of_an_unknown_identifier_is_told_at_debug)
{
    RingClient client;
    add(client, 1);
    LogCapture log;
    EXPECT_EQ(qos_reliable_handle_ack(client, 2, PUBREC), -1);
    EXPECT_THAT(log.take(), ElementsAre(debug("[QoS] 收到无效ACK报文(msg_id=2, client=dev1, 类型=5)：未找到对应报文")));
}

TEST(ack, puback_completes_qos_1)
{
    RingClient client;
    add(client, 3);
    LogCapture log;
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBACK), 0);
    EXPECT_THAT(log.take(), ElementsAre(logged::ack_traced("PUBACK", 3, 1, 0), logged::delivery_removed(3, "dev1"),
                                        logged::delivery_confirmed(3, "dev1"), logged::qos1_completed("PUBACK", 3)));
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(ack, puback_completes_qos_2_in_any_state_with_a_warning)
{
    RingClient client;
    for (const uint32_t state : {1u, 2u, 3u}) {
        add(client, 3, 2);
        g_pending_queue->qos2_state = state;
        LogCapture log(2);
        EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBACK), 0);
        EXPECT_THAT(log.take(), ElementsAre(logged::qos2_completed_by_puback(3)));
        EXPECT_EQ(g_pending_queue, nullptr);
    }
}

TEST(ack, puback_does_not_match_another_qos)
{
    RingClient client;
    add(client, 3);
    g_pending_queue->qos = 0;
    LogCapture log(1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBACK), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::ack_mismatch("PUBACK", 3, 0)));
    EXPECT_EQ(pending_count(), 1);
}

TEST(ack, qos_2_goes_from_pubrec_to_pubcomp)
{
    RingClient client;
    add(client, 0x0102, 2);
    LogCapture log(1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREC), 0);
    EXPECT_EQ(g_pending_queue->qos2_state, 2u);
    EXPECT_THAT(client.take(), ElementsAre(wire("62 02 01 02")));
    EXPECT_THAT(own(log), ElementsAre(logged::pubrec_answered(258)));
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREC), 0) << "a second PUBREC changes nothing";
    EXPECT_THAT(client.take(), IsEmpty());

    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREL), 0);
    EXPECT_EQ(g_pending_queue->qos2_state, 3u);
    EXPECT_THAT(client.take(), ElementsAre(wire("70 02 01 02")));
    EXPECT_THAT(own(log), ElementsAre(logged::pubrel_answered(258)));
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREL), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREC), 0);
    EXPECT_THAT(client.take(), IsEmpty());

    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBCOMP), 0);
    EXPECT_THAT(own(log), ElementsAre(logged::qos2_completed(258)));
    EXPECT_EQ(g_pending_queue, nullptr);
}

TEST(ack, pubrel_before_pubrec_changes_nothing)
{
    RingClient client;
    add(client, 3, 2);
    LogCapture log(1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBREL), 0);
    EXPECT_EQ(g_pending_queue->qos2_state, 1u);
    EXPECT_THAT(client.take(), IsEmpty());
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(ack, pubcomp_out_of_order_removes_silently)
{
    RingClient client;
    for (const uint32_t state : {1u, 2u}) {
        add(client, 3, 2);
        g_pending_queue->qos2_state = state;
        LogCapture log(1);
        EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBCOMP), 0);
        EXPECT_THAT(log.take(), IsEmpty());
        EXPECT_EQ(g_pending_queue, nullptr);
    }
}

TEST(ack, of_the_qos_2_handshake_leaves_qos_1_alone)
{
    RingClient client;
    add(client, 3, 1);
    LogCapture log(1);
    for (const uint8_t type : {PUBREC, PUBREL, PUBCOMP})
        EXPECT_EQ(qos_reliable_handle_ack(client, 3, type), 0);
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(client.take(), IsEmpty());
    EXPECT_EQ(pending_count(), 1);
}

TEST(ack, of_another_type_is_refused)
{
    RingClient client;
    add(client, 3, 1);
    LogCapture log;
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, 9), -1);
    EXPECT_THAT(log.take(), ElementsAre(logged::ack_traced("未知", 3, 1, 0), logged::ack_type_unsupported(3)));
}

TEST(ack, replies_that_cannot_be_encoded_are_told)
{
    RingClient client;
    add(client, 3, 2);
    client->codec.version = 9;
    LogCapture log(1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBREC), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 3, PUBREL), -1);
    EXPECT_THAT(own(log),
                ElementsAre(error("[QoS] PUBREL编码失败: msg_id=3"), error("[QoS] PUBCOMP编码失败: msg_id=3")));
}

// ---- the whole table, each row with all its lines

namespace {

struct Entry {
    uint8_t  qos;
    uint32_t state;
};
// Also QoS 0 and 3 and a fourth state, which only a host that edits the list can make.
constexpr Entry kEntries[] = {{1, 0}, {2, 1}, {2, 2}, {2, 3}, {2, 4}, {0, 0}, {3, 1}};

struct Outcome {
    int                  result = 0;
    uint32_t             state; // afterwards
    bool                 stays = true;
    std::vector<Bytes>   sent;
    std::vector<LogLine> lines;

    void remove()
    {
        stays = false;
        lines.push_back(logged::delivery_removed(258, "dev1"));
        lines.push_back(logged::delivery_confirmed(258, "dev1"));
    }
    void fail(LogLine line)
    {
        result = -1;
        lines.push_back(std::move(line));
    }
    void reply(uint32_t next, uint8_t first, unsigned level, LogLine line)
    {
        state = next;
        sent.push_back(packet(first, u16(258) + (level == 5 ? wire("00") : Bytes{})));
        lines.push_back(std::move(line));
    }
};

Outcome outcome_of(uint8_t type, const Entry &entry, unsigned level)
{
    const char *const names[] = {"PUBACK", "PUBREC", "PUBREL", "PUBCOMP"};
    const std::string name    = type >= PUBACK && type <= PUBCOMP ? names[type - PUBACK] : "未知";
    Outcome           out{.state = entry.state, .sent = {}, .lines = {}};
    out.lines = {logged::ack_traced(name, 258, entry.qos, static_cast<int>(entry.state))};
    switch (type) {
    case PUBACK:
        if (entry.qos != 1 && entry.qos != 2) {
            out.fail(logged::ack_mismatch("PUBACK", 258, entry.qos));
            break;
        }
        out.remove();
        out.lines.push_back(entry.qos == 1 ? logged::qos1_completed("PUBACK", 258)
                                           : logged::qos2_completed_by_puback(258));
        break;
    case PUBREC:
        if (entry.qos == 2 && entry.state == 1)
            out.reply(2, 0x62, level, logged::pubrec_answered(258));
        break;
    case PUBREL:
        if (entry.qos == 2 && entry.state == 2)
            out.reply(3, 0x70, level, logged::pubrel_answered(258));
        break;
    case PUBCOMP:
        if (entry.qos != 2)
            break;
        out.remove();
        if (entry.state == 3)
            out.lines.push_back(logged::qos2_completed(258));
        break;
    default:
        out.fail(logged::ack_type_unsupported(258));
    }
    return out;
}

} // namespace

TEST(ack, every_type_meets_every_entry)
{
    for (const unsigned level : {4u, 5u})
        for (const Entry &entry : kEntries)
            for (const uint8_t type : std::initializer_list<uint8_t>{0, 3, PUBACK, PUBREC, PUBREL, PUBCOMP, 8, 255}) {
                SCOPED_TRACE(testing::Message() << "level " << level << ", QoS " << int(entry.qos) << ", state "
                                                << entry.state << ", type " << int(type));
                const Outcome expected = outcome_of(type, entry, level);
                for (int log_level = 0; log_level <= 3; ++log_level) {
                    RingClient client, other("dev2");
                    client->codec.version = level;
                    add(other, 258); // the same identifier, and never meant
                    add(client, 258, 2, "t", "x");
                    g_pending_queue->qos        = entry.qos;
                    g_pending_queue->qos2_state = entry.state;
                    LogCapture log(static_cast<uint32_t>(log_level));
                    EXPECT_EQ(qos_reliable_handle_ack(client, 258, type), expected.result);
                    std::vector<LogLine> lines = expected.lines;
                    std::erase_if(lines, [&](const LogLine &line) { return rank_of(line) < log_level; });
                    EXPECT_EQ(own(log), lines);
                    EXPECT_EQ(client.take(), expected.sent);
                    EXPECT_EQ(other.take(), std::vector<Bytes>{});
                    ASSERT_EQ(pending_count(), expected.stays ? 2 : 1);
                    if (expected.stays) {
                        EXPECT_EQ(g_pending_queue->qos2_state, expected.state);
                    }
                    qos_reliable_clean_client_packets(client);
                    qos_reliable_clean_client_packets(other);
                }
            }
}

TEST(expiry, is_set_for_a_known_identifier_only)
{
    RingClient client;
    add(client, 3);
    LogCapture log;
    qos_reliable_set_packet_expiry(nullptr, 3, 5);
    qos_reliable_set_packet_expiry(client, 0, 5);
    qos_reliable_set_packet_expiry(client, 4, 5);
    EXPECT_THAT(log.take(), IsEmpty());
    qos_reliable_set_packet_expiry(client, 3, 5);
    EXPECT_THAT(log.take(), ElementsAre(logged::delivery_expiry_set(3, 5)));
    EXPECT_EQ(g_pending_queue->expiry_s, 5u);
}
