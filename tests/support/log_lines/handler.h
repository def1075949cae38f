// handler.h - lines of src/handler that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_HANDLER_H
#define TARN_TESTS_LOG_LINES_HANDLER_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine puback_undecodable(const std::string &id, int code)
{
    return error(printed("解码PUBACK失败：ClientID=%s, 错误码=%d", id.c_str(), code));
}
inline LogLine puback_received(const std::string &id, int packet_id)
{
    return info(printed("MQTT标准：收到PUBACK确认：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubrec_received(const std::string &id, int packet_id)
{
    return info(printed("收到PUBREC：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubrel_sent(const std::string &id, int packet_id)
{
    return info(printed("发送PUBREL成功：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubrel_received(const std::string &id, int packet_id)
{
    return info(printed("收到PUBREL：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubcomp_sent(const std::string &id, int packet_id)
{
    return info(printed("发送PUBCOMP成功：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubcomp_received(const std::string &id, int packet_id)
{
    return info(printed("收到PUBCOMP：ClientID=%s, MsgID=%d，QoS2流程完成", id.c_str(), packet_id));
}

inline LogLine broadcast_receivers(int count)
{
    return debug(printed("[遗嘱调试][订阅者列表] 匹配到的%d个订阅者：", count));
}
inline LogLine broadcast_receiver(int number, const std::string &id, const std::string &filter, int qos)
{
    return debug(printed("[遗嘱调试][订阅者%d] ClientID=%s, TopicFilter=%s, 订阅QoS=%d", number, id.c_str(),
                         filter.c_str(), qos));
}
inline LogLine broadcast_skips_empty_id(int number)
{
    return warn(printed("[遗嘱调试][广播跳过] 订阅者%d：ClientID为空", number));
}
inline LogLine broadcast_receiver_unknown(int number, const std::string &id)
{
    return warn(printed("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 不存在", number, id.c_str()));
}
inline LogLine broadcast_receiver_offline(const std::string &id)
{
    return warn(printed("[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：%s", id.c_str()));
}
inline LogLine broadcast_receiver_in_state(int number, const std::string &id, int state)
{
    return warn(printed("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 状态无效（%d），需为LOGINED/CONNECTED", number,
                        id.c_str(), state));
}
inline LogLine broadcast_matched(const std::string &topic, int count)
{
    return info(printed("[遗嘱调试][订阅匹配] Topic=%s 匹配到 %d 个订阅者（上限=11000）", topic.c_str(), count));
}
inline LogLine broadcast_matched_nobody(const std::string &topic)
{
    return debug(printed("[遗嘱调试][广播完成] 无匹配订阅者，Topic=%s", topic.c_str()));
}
inline LogLine shared_receiver_skipped(int number)
{
    return debug(printed("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", number));
}
inline LogLine broadcast_qos_lowered(int number, int message_qos, int granted, int qos)
{
    return debug(printed("[遗嘱调试][QoS降级] 订阅者%d：原始QoS=%d → 订阅QoS=%d → 最终投递QoS=%d", number, message_qos,
                         granted, qos));
}
inline LogLine broadcast_payload_unreadable(int number, int start, int length, int packet_length)
{
    return error(printed("[遗嘱调试][广播失败] 订阅者%d：Payload解析失败（start=%d, len=%d, msg_len=%d）", number,
                         start, length, packet_length));
}
inline LogLine broadcast_not_encoded(int number, const std::string &id, int code)
{
    return error(printed("[遗嘱调试][广播失败] 订阅者%d：To=%s, 编码失败（错误码=%d）", number, id.c_str(), code));
}
inline LogLine broadcast_not_sent(int number, const std::string &id, int result)
{
    return error(printed("[遗嘱调试][广播失败] 订阅者%d：To=%s, 发送返回值=%d", number, id.c_str(), result));
}
inline LogLine broadcast_sent(int number, const std::string &id, const std::string &topic, int qos)
{
    return info(printed("[遗嘱调试][广播成功] 订阅者%d：To=%s, Topic=%s,最终投递QoS=%d（已降级）", number, id.c_str(),
                        topic.c_str(), qos));
}
inline LogLine broadcast_ended(const std::string &topic, int count, int sent, int failed)
{
    return info(printed("[遗嘱调试][广播完成] Topic=%s, 总计匹配%d个订阅者，成功发送%d个，失败%d个", topic.c_str(),
                        count, sent, failed));
}
inline LogLine broadcast_started(const std::string &topic, int qos, int length)
{
    return info(printed("[遗嘱调试][广播开始] Topic=%s, 原始QoS=%d, 消息长度=%d, 开始匹配订阅者（上限=11000）",
                        topic.c_str(), qos, length));
}
inline LogLine broadcast_topic_cut(int topic_length, int packet_length, int need)
{
    return error(printed("[遗嘱调试][广播失败] Topic越界：topic_len=%d, msg_len=%d, 2+2+topic_len=%d > msg_len",
                         topic_length, packet_length, need));
}

inline LogLine connack_no_memory()
{
    return error("connack_buf malloc failed");
}
inline LogLine session_expiry_negotiated(const std::string &id, unsigned seconds)
{
    return info(printed("[MQTT5] Session Expiry Interval negotiated: client=%s, value=%u (0x11)", id.c_str(), seconds));
}
inline LogLine session_expiry_unsupported()
{
    return debug("[MQTT3] Session Expiry Interval not supported, set to 0");
}
inline LogLine max_packet_size_unsupported(unsigned size, const std::string &id)
{
    return info(printed("[MQTT3] Maximum Packet Size not supported, use default=%u, client=%s", size, id.c_str()));
}
inline LogLine max_packet_size_raised(unsigned size, const std::string &id)
{
    return warn(printed("[MQTT5] Maximum Packet Size too small(%u), force set to 256, client=%s", size, id.c_str()));
}
inline LogLine max_packet_size_negotiated(const std::string &id, unsigned size)
{
    return info(printed("[MQTT5] Maximum Packet Size negotiated: client=%s, value=%u (valid)", id.c_str(), size));
}
inline LogLine session_loaded(const std::string &id, int subscriptions, int messages)
{
    return info(
        printed("[会话] 加载客户端持久化数据成功: %s, 订阅数=%d, 离线消息数=%d", id.c_str(), subscriptions, messages));
}
inline LogLine session_cleared()
{
    return info("[会话] CleanSession=1 → 清除历史数据 + 内存订阅");
}
inline LogLine subscription_resumed(const std::string &filter, int qos)
{
    return info(printed("[恢复] 订阅: %s QoS=%d → 内存订阅表", filter.c_str(), qos));
}
inline LogLine session_resumed(const std::string &id)
{
    return info(printed("[会话] 客户端 %s 上下文恢复完成", id.c_str()));
}
inline LogLine connack_properties(unsigned max_packet_size, unsigned session_expiry_s)
{
    return info(printed("[MQTT5] CONNACK properties: max_packet_size=%u, session_expiry_interval=%u", max_packet_size,
                        session_expiry_s));
}
inline LogLine connack_sent(const std::string &id, int session_present)
{
    return info(printed("CONNACK -> %s (SessionPresent=%d)", id.c_str(), session_present));
}
inline LogLine connect_undecodable()
{
    return error("CONNECT decode failed");
}

inline LogLine disconnect_session_expiry(unsigned seconds)
{
    return info(printed("[MQTT5] DISCONNECT 覆盖会话超时: %u", seconds));
}
inline LogLine session_data_cleared(const std::string &id)
{
    return info(printed("持久化：客户端数据已清除 ClientID=%s", id.c_str()));
}
inline LogLine disconnect_session(unsigned session_expiry_s, unsigned clean_session)
{
    return info(
        printed("[MQTT5] DISCONNECT: session_expiry_interval=%u, clean_session=%u", session_expiry_s, clean_session));
}
inline LogLine session_expiry_keeps(unsigned seconds)
{
    return info(printed("[MQTT5] Session Expiry=%u → 保留会话", seconds));
}
inline LogLine session_expiry_clears()
{
    return info("[MQTT5] Session Expiry=0 → 立即清除会话");
}
inline LogLine disconnect_undecodable(const std::string &id, int code)
{
    return error(printed("解码DISCONNECT失败：ClientID=%s, 错误码=%d", id.c_str(), code));
}
inline LogLine client_disconnects(const std::string &id)
{
    return info(printed("MQTT标准：客户端主动断开连接：ClientID=%s", id.c_str()));
}
inline LogLine subscriptions_removed_at_disconnect(const std::string &id, int count)
{
    return info(printed("MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=%s, 数量=%d", id.c_str(), count));
}

inline LogLine unhandled_packet_type(int type, const std::string &id)
{
    return warn(printed("未处理的MQTT报文类型：%d, ClientID=%s", type, id.c_str()));
}
inline LogLine invalid_packet()
{
    return error("无效报文参数");
}
inline LogLine packet_received(const std::string &id, int type, unsigned length)
{
    return debug(printed("收到MQTT报文：ClientID=%s, 类型=%d, 长度=%u", id.c_str(), type, length));
}

inline LogLine hello_receiver_unknown(const std::string &id)
{
    return warn(printed("订阅者不存在：ClientID=%s", id.c_str()));
}
inline LogLine hello_receiver_in_state(const std::string &id, int state)
{
    return warn(printed("订阅者状态无效：ClientID=%s, 状态=%d", id.c_str(), state));
}
inline LogLine hello_matches_no_memory()
{
    return error("matched_subs malloc failed: 12");
}
inline LogLine hello_shared_no_memory()
{
    return error("selected_shared malloc failed: 12");
}
inline LogLine hello_matched(const std::string &topic, int count)
{
    return info(printed("【订阅匹配】Topic=%s 匹配到 %d 个订阅者（上限=11000）", topic.c_str(), count));
}
inline LogLine hello_matched_nobody(const std::string &topic)
{
    return debug(printed("测试消息无匹配订阅者：Topic=%s", topic.c_str()));
}
inline LogLine hello_shared_receiver_skipped(int number)
{
    return debug(printed("[共享订阅] 测试消息 订阅者%d 跳过", number));
}
inline LogLine hello_packet_no_memory()
{
    return error("forward_buf malloc failed: 12");
}
inline LogLine hello_not_encoded(const std::string &id, int code)
{
    return error(printed("编码测试消息失败：To=%s, 错误码=%d", id.c_str(), code));
}
inline LogLine hello_not_sent(const std::string &id, int result)
{
    return error(printed("转发测试消息失败：To=%s, 发送返回值=%d", id.c_str(), result));
}
inline LogLine hello_sent(const std::string &id, const std::string &topic, int qos)
{
    return info(printed("转发测试消息成功：To=%s, Topic=%s, QoS=%d（标准降级后）", id.c_str(), topic.c_str(), qos));
}
inline LogLine hello_ended(int count, int sent)
{
    return info(printed("测试消息转发完成：总计匹配%d个订阅者，成功发送%d个", count, sent));
}
inline LogLine hello_started(const std::string &topic, const std::string &payload, int qos)
{
    return info(
        printed("MQTT标准：准备发布测试消息：Topic=%s, Payload=[%s], QoS=%d", topic.c_str(), payload.c_str(), qos));
}

inline LogLine host_message_not_kept(const std::string &id, const std::string &topic)
{
    return info(printed("[MQTT标准] QoS=0 离线消息不存储：ClientID=%s, Topic=%s", id.c_str(), topic.c_str()));
}
inline LogLine host_message_kept(const std::string &id, const std::string &topic)
{
    return info(printed("[STANDARD] APP发布离线消息已存储: %s, Topic=%s", id.c_str(), topic.c_str()));
}

inline LogLine kept_message_renumbered(int packet_id)
{
    return debug(printed("[packet_handler] 修复离线消息 MsgID=0 → 新 MsgID=%d", packet_id));
}
inline LogLine kept_message_sent(int packet_id, const std::string &topic, int qos)
{
    return debug(printed("[packet_handler] 已补发: msgid=%d topic=%s qos=%d", packet_id, topic.c_str(), qos));
}
inline LogLine kept_messages_without_client()
{
    return debug("[packet_handler] 不补发：client 无效");
}
inline LogLine kept_messages_none(const std::string &id)
{
    return debug(printed("[packet_handler] 无离线消息需要补发: %s", id.c_str()));
}
inline LogLine kept_messages_started(const std::string &id, int count)
{
    return info(printed("[packet_handler] 开始补发离线消息: %s 共 %d 条", id.c_str(), count));
}
inline LogLine kept_messages_ended(const std::string &id)
{
    return info(printed("[packet_handler] 离线消息补发完成: %s，已清空离线消息", id.c_str()));
}

inline LogLine ping_received(const std::string &id)
{
    return debug(printed("收到客户端心跳请求：ClientID=%s", id.c_str()));
}

inline LogLine message_kept(const std::string &id, const std::string &topic)
{
    return info(printed("[MQTT标准] 离线消息已存储：ClientID=%s, Topic=%s", id.c_str(), topic.c_str()));
}
inline LogLine publish_matched_nobody(const std::string &topic)
{
    return debug(printed("发布消息无匹配订阅者：Topic=%s", topic.c_str()));
}
inline LogLine message_forwarded(const std::string &id, const std::string &topic, int qos)
{
    return info(printed("转发消息成功：To=%s, Topic=%s, QoS=%d", id.c_str(), topic.c_str(), qos));
}
inline LogLine publish_ended(int count, int sent)
{
    return info(printed("MQTT标准：消息转发完成：匹配%d个订阅者，成功发送%d个", count, sent));
}
inline LogLine puback_sent(const std::string &id, int packet_id)
{
    return info(printed("发送PUBACK成功：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine pubrec_sent(const std::string &id, int packet_id)
{
    return info(printed("发送PUBREC成功：ClientID=%s, MsgID=%d", id.c_str(), packet_id));
}
inline LogLine publish_received(const std::string &id, const std::string &topic, int qos, int retain, int packet_id)
{
    return info(printed("MQTT标准：收到发布消息：ClientID=%s, Topic=%s, QoS=%d, Retain=%d, MsgID=%d", id.c_str(),
                        topic.c_str(), qos, retain, packet_id));
}

inline LogLine retained_sent(const std::string &id, const std::string &topic, const std::string &filter)
{
    return info(
        printed("[保留消息] 下发成功: Client=%s, Topic=%s, Filter=%s", id.c_str(), topic.c_str(), filter.c_str()));
}

inline LogLine subscribe_received(const std::string &id, int packet_id, int count)
{
    return info(printed("【QoS溯源1】客户端订阅请求：ClientID=%s, MsgID=%d, 订阅数=%d", id.c_str(), packet_id, count));
}
inline LogLine subscribe_filter(int index, const std::string &filter, int qos)
{
    return info(printed("【QoS溯源1】filter[%d]：Topic=%s, 请求QoS=%d (0x%02X)", index, filter.c_str(), qos, qos));
}
inline LogLine subscribe_filter_refused(int index, const std::string &filter)
{
    return warn(printed("【QoS溯源2】filter[%d]：Topic=%s, 添加订阅失败，授予QoS=失败(0x80)", index, filter.c_str()));
}
inline LogLine subscribe_filter_granted(int index, const std::string &filter, int asked, int granted)
{
    return info(printed("【QoS溯源2】filter[%d]：Topic=%s, 请求QoS=%d → 授予QoS=%d (0x%02X)", index, filter.c_str(),
                        asked, granted, granted));
}
inline LogLine subscriptions_saved(const std::string &id, int count)
{
    return info(printed("[持久化] 订阅已保存到文件: %s, 订阅数=%d", id.c_str(), count));
}
inline LogLine subscribe_code_v5(int granted, unsigned code)
{
    return info(printed("【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X", granted, code));
}
inline LogLine subscribe_code_v4(int granted, unsigned code)
{
    return info(printed("【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X", granted, code));
}
inline LogLine suback_no_memory()
{
    return error("ack_buf malloc failed: 12");
}
inline LogLine suback_sent(const std::string &id, int packet_id, int granted, unsigned code)
{
    return info(printed("发送SUBACK成功：ClientID=%s, MsgID=%d, 授权QoS=%d, ReasonCode=0x%02X", id.c_str(), packet_id,
                        granted, code));
}
inline LogLine subscribe_undecodable(const std::string &id, int code)
{
    return error(printed("解码SUBSCRIBE失败：ClientID=%s, 错误码=%d", id.c_str(), code));
}

inline LogLine filter_not_removed(const std::string &id, const std::string &filter)
{
    return debug(printed("取消订阅失败：ClientID=%s, Topic=%s", id.c_str(), filter.c_str()));
}
inline LogLine unsubscribe_undecodable(const std::string &id, int code)
{
    return error(printed("解码UNSUBSCRIBE失败：ClientID=%s, 错误码=%d", id.c_str(), code));
}

inline LogLine will_sent(const std::string &id)
{
    return info(printed("[WILL] Send will message: client=%s", id.c_str()));
}
inline LogLine will_message(const std::string &topic, unsigned qos, unsigned retain, unsigned payload_length)
{
    return info(
        printed("[WILL] Topic: %s, QoS: %u, Retain: %u, PayloadLen: %u", topic.c_str(), qos, retain, payload_length));
}
inline LogLine will_payload()
{
    return debug("[WILL] Payload");
}
inline LogLine will_encoded(int length)
{
    return info(printed("[WILL] 编码成功 | len=%d | 开始广播", length));
}
inline LogLine will_broadcast_ended(int sent)
{
    return info(printed("[WILL] 广播完成 | will_sent=%d", sent));
}
inline LogLine will_not_encoded(int code)
{
    return error(printed("[WILL] 编码失败 | code=%d | len=4096", code));
}
inline LogLine will_prepared(const std::string &id, int used, int sent)
{
    return info(printed("[WILL] 准备启动遗嘱 | client=%s | will_msg_used=%d | will_sent=%d", id.c_str(), used, sent));
}
inline LogLine will_not_due()
{
    return warn("[WILL] 不启动：条件不满足");
}
inline LogLine will_delay_cancelled(const std::string &id)
{
    return info(printed("[WILL-MQTT5] client=%s 取消遗嘱延迟", id.c_str()));
}

} // namespace tarn::test::logged

#endif
