// One conversation of two clients, every line at INFO and every byte.
#include "handler_fixture.h"

using namespace tarn;
using namespace tarn::test;
using testing::ElementsAre;

namespace {

std::vector<LogLine> ack_trace(const Bytes &head, const Bytes &codes = {}, const Bytes &packet = {},
                               bool suback = false)
{
    std::vector<LogLine> lines;
    char                 text[100];
    const auto           list = [&](const char *name, const Bytes &bytes) {
        for (size_t i = 0; i < 16; i++) {
            snprintf(text, sizeof text, "%s[%zu] = 0x%02X", name, i, i < bytes.size() ? bytes[i] : 0);
            lines.push_back(info(text));
        }
    };
    lines.push_back(info("【QoS溯源6】SUBACK可变头（前16字节）："));
    list("var_header", head);
    if (suback) {
        lines.push_back(info("【QoS溯源6】SUBACK负载（前16字节）："));
        list("payload_buf", codes);
    }
    if (!packet.empty()) {
        lines.push_back(info("【QoS溯源7】发送SUBACK前最终缓冲区（长度=" + std::to_string(packet.size()) + "）："));
        list("ack_buf", packet);
    }
    return lines;
}

std::vector<LogLine> operator+(std::vector<LogLine> left, const std::vector<LogLine> &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

using Lines = std::vector<LogLine>;

} // namespace

TEST(transcript, at_level_4)
{
    Handling   broker;
    Client     dev(broker), app(broker);
    LogCapture log(AGENT_LOG_INFO);

    dev.sends(connect_v4("dev"));
    EXPECT_EQ(log.take(),
              (Lines{info("[MQTT3] Maximum Packet Size not supported, use default=4096, client=dev"),
                     info("MQTT标准：移除订阅：ClientID=dev, Topic=所有, 移除数量=0"),
                     info("[会话] CleanSession=1 → 清除历史数据 + 内存订阅"),
                     info("[WILL-MQTT5] client=dev 取消遗嘱延迟"), info("CONNACK -> dev (SessionPresent=0)")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("20 02 00 00")));

    dev.sends("82 08 | 00 01 | 00 03 'a/b' 01");
    EXPECT_EQ(log.take(), (Lines{info("【QoS溯源1】客户端订阅请求：ClientID=dev, MsgID=1, 订阅数=1"),
                                 info("【QoS溯源1】filter[0]：Topic=a/b, 请求QoS=1 (0x01)"),
                                 info("MQTT标准：新增订阅：ClientID=dev, Topic=a/b, QoS=1, CleanSession=1"),
                                 info("【QoS溯源2】filter[0]：Topic=a/b, 请求QoS=1 → 授予QoS=1 (0x01)"),
                                 info("【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=1 → ReasonCode=0x01")} +
                           ack_trace(wire("00 01"), wire("01"), {}, true) +
                           Lines{info("发送SUBACK成功：ClientID=dev, MsgID=1, 授权QoS=1, ReasonCode=0x01")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("90 03 00 01 01")));

    app.sends(connect_v4("app"));
    app.gets();
    log.take();
    const uint16_t id = next_id();
    app.sends("34 09 | 00 03 'a/b' 00 07 | 'hi'");
    EXPECT_EQ(log.take(),
              (Lines{info("MQTT标准：收到发布消息：ClientID=app, Topic=a/b, QoS=2, Retain=0, MsgID=7"),
                     info("MQTT标准：Topic=a/b 匹配到 1 个订阅者"), info("转发消息成功：To=dev, Topic=a/b, QoS=1"),
                     info("MQTT标准：消息转发完成：匹配1个订阅者，成功发送1个")} +
               ack_trace(wire("00 07")) + Lines{info("发送PUBREC成功：ClientID=app, MsgID=7")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("32 09 | 00 03 'a/b'") + u16(id) + text("hi")));
    EXPECT_THAT(app.gets(), ElementsAre(wire("50 02 00 07")));

    app.sends("62 02 00 07");
    EXPECT_EQ(log.take(), (Lines{info("收到PUBREL：ClientID=app, MsgID=7")} + ack_trace(wire("00 07")) +
                           Lines{info("发送PUBCOMP成功：ClientID=app, MsgID=7")}));
    EXPECT_THAT(app.gets(), ElementsAre(wire("70 02 00 07")));

    dev.sends(wire("40 02") + u16(id));
    EXPECT_EQ(log.take(), (Lines{info("MQTT标准：收到PUBACK确认：ClientID=dev, MsgID=" + std::to_string(id)),
                                 info("[QoS] QoS1 PUBACK 完成: msg_id=" + std::to_string(id))}));

    dev.sends("E0 00");
    EXPECT_EQ(log.take(),
              (Lines{info("MQTT标准：客户端主动断开连接：ClientID=dev"), info("[WILL-MQTT5] client=dev 取消遗嘱延迟"),
                     info("持久化：客户端数据已清除 ClientID=dev"), warn("[QoS_CLEAN] 清理客户端: dev"),
                     info("[QoS] 清理客户端报文完成(client=dev)：共清理0条"),
                     info("MQTT标准：移除订阅：ClientID=dev, Topic=所有, 移除数量=1"),
                     info("MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=dev, 数量=1"),
                     warn("[FREE-NORMAL] 客户端正常关闭: dev"), warn("[QoS_CLEAN] 清理客户端: dev"),
                     info("[QoS] 清理客户端报文完成(client=dev)：共清理0条")}));
}

TEST(transcript, at_level_5)
{
    Handling   broker;
    Client     dev(broker), app(broker);
    LogCapture log(AGENT_LOG_INFO);

    dev.sends(connect_v5("dev"));
    EXPECT_EQ(log.take(), (Lines{info("[MQTT5] Session Expiry Interval negotiated: client=dev, value=0 (0x11)"),
                                 info("[MQTT5] Maximum Packet Size negotiated: client=dev, value=4096 (valid)"),
                                 info("MQTT标准：移除订阅：ClientID=dev, Topic=所有, 移除数量=0"),
                                 info("[会话] CleanSession=1 → 清除历史数据 + 内存订阅"),
                                 info("[WILL-MQTT5] client=dev 取消遗嘱延迟"),
                                 info("[MQTT5] CONNACK properties: max_packet_size=4096, session_expiry_interval=0"),
                                 info("CONNACK -> dev (SessionPresent=0)")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("20 0B 00 00 08 21 00 00 27 00 00 10 00")));

    dev.sends("82 09 | 00 01 00 | 00 03 'a/b' 02");
    Lines lines = log.take();
    std::erase_if(lines,
                  [](const LogLine &line) { return line.text.rfind("【QoS溯源5】", 0) == 0; }); // an address in it
    EXPECT_EQ(lines,
              (Lines{info("【QoS溯源1】客户端订阅请求：ClientID=dev, MsgID=1, 订阅数=1"),
                     info("【QoS溯源1】filter[0]：Topic=a/b, 请求QoS=2 (0x02)"),
                     info("MQTT标准：新增订阅：ClientID=dev, Topic=a/b, QoS=2, CleanSession=1"),
                     info("【QoS溯源2】filter[0]：Topic=a/b, 请求QoS=2 → 授予QoS=2 (0x02)"),
                     info("【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=2 → ReasonCode=0x02"),
                     info("【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x02")} +
               ack_trace(wire("00 01 00"), wire("02"), wire("90 04 00 01 00 02"), true) +
               Lines{info("发送SUBACK成功：ClientID=dev, MsgID=1, 授权QoS=2, ReasonCode=0x02")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("90 04 00 01 00 02")));

    app.sends(connect_v5("app"));
    app.gets();
    log.take();
    const uint16_t id = next_id();
    app.sends("32 0A | 00 03 'a/b' 00 07 00 | 'hi'");
    EXPECT_EQ(log.take(),
              (Lines{info("MQTT标准：收到发布消息：ClientID=app, Topic=a/b, QoS=1, Retain=0, MsgID=7"),
                     info("MQTT标准：Topic=a/b 匹配到 1 个订阅者"), info("转发消息成功：To=dev, Topic=a/b, QoS=1"),
                     info("MQTT标准：消息转发完成：匹配1个订阅者，成功发送1个")} +
               ack_trace(wire("00 07 00")) + Lines{info("发送PUBACK成功：ClientID=app, MsgID=7")}));
    EXPECT_THAT(dev.gets(), ElementsAre(wire("32 0A | 00 03 'a/b'") + u16(id) + wire("00 'hi'")));
    EXPECT_THAT(app.gets(), ElementsAre(wire("40 03 00 07 00")));

    dev.sends("E0 02 00 00");
    EXPECT_EQ(log.take(),
              (Lines{info("MQTT标准：客户端主动断开连接：ClientID=dev"), info("[WILL-MQTT5] client=dev 取消遗嘱延迟"),
                     info("[MQTT5] DISCONNECT: session_expiry_interval=0, clean_session=1"),
                     info("[MQTT5] Session Expiry=0 → 立即清除会话"), warn("[QoS_CLEAN] 清理客户端: dev"),
                     info("[QoS] 清理客户端报文完成(client=dev)：共清理1条"),
                     info("MQTT标准：移除订阅：ClientID=dev, Topic=所有, 移除数量=1"),
                     info("MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=dev, 数量=1"),
                     warn("[FREE-NORMAL] 客户端正常关闭: dev"), warn("[QoS_CLEAN] 清理客户端: dev"),
                     info("[QoS] 清理客户端报文完成(client=dev)：共清理0条")}));
}
