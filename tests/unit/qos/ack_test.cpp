#include "qos_fixture.h"

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

enum { PUBACK = 4, PUBREC, PUBREL, PUBCOMP };

// The encoder of the replies traces at INFO; only lines of this module are compared.
std::vector<LogLine> own(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) { return line.text.rfind("[QoS", 0) != 0; });
    return lines;
}

} // namespace

TEST(ack, needs_a_client_and_an_identifier)
{
    RingClient client;
    LogCapture log;
    EXPECT_EQ(qos_reliable_handle_ack(nullptr, 1, PUBACK), -1);
    EXPECT_EQ(qos_reliable_handle_ack(client, 0, PUBACK), -1);
    EXPECT_THAT(log.take(),
                ElementsAre(error("[QoS] 处理ACK参数错误：客户端为空"), error("[QoS] 处理ACK参数错误：客户端为空")));
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
    EXPECT_THAT(log.take(), ElementsAre(debug("[QoS追踪] ACK: PUBACK | msg_id=3 | QoS=1 | state=0"),
                                        debug("[QoS_REMOVE] msg_id=3, client=dev1"),
                                        debug("[QoS] 移除已确认报文(msg_id=3, client=dev1)，完全删除"),
                                        info("[QoS] QoS1 PUBACK 完成: msg_id=3")));
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
        EXPECT_THAT(log.take(), ElementsAre(warn("[QoS] QoS2 报文收到PUBACK(客户端降级)，强制完成: msg_id=3")));
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
    EXPECT_THAT(log.take(), ElementsAre(error("[QoS] PUBACK 不匹配: msg_id=3 QoS=0")));
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
    EXPECT_THAT(own(log), ElementsAre(info("[QoS] ✅ 收到PUBREC -> 发送PUBREL: msg_id=258")));
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREC), 0) << "a second PUBREC changes nothing";
    EXPECT_THAT(client.take(), IsEmpty());

    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREL), 0);
    EXPECT_EQ(g_pending_queue->qos2_state, 3u);
    EXPECT_THAT(client.take(), ElementsAre(wire("70 02 01 02")));
    EXPECT_THAT(own(log), ElementsAre(info("[QoS] ✅ 收到PUBREL -> 发送PUBCOMP: msg_id=258")));
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREL), 0);
    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBREC), 0);
    EXPECT_THAT(client.take(), IsEmpty());

    EXPECT_EQ(qos_reliable_handle_ack(client, 0x0102, PUBCOMP), 0);
    EXPECT_THAT(own(log), ElementsAre(info("[QoS] ✅ QoS2 完成: msg_id=258")));
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
    EXPECT_THAT(log.take(), ElementsAre(debug("[QoS追踪] ACK: 未知 | msg_id=3 | QoS=1 | state=0"),
                                        error("[QoS] 不支持的ACK类型: msg_id=3")));
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
    EXPECT_THAT(log.take(), ElementsAre(info("[QoS/Expiry] 设置消息过期: msg_id=3, 过期时间=5 秒")));
    EXPECT_EQ(g_pending_queue->expiry_s, 5u);
}
