// qos.h - lines of src/qos that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_QOS_H
#define TARN_TESTS_LOG_LINES_QOS_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine ack_without_client()
{
    return error("[QoS] 处理ACK参数错误：客户端为空");
}
inline LogLine deliveries_dropped_of(const std::string &id)
{
    return warn(printed("[QoS_CLEAN] 清理客户端: %s", id.c_str()));
}

inline LogLine delivery_without_topic()
{
    return error("[QoS] 添加报文参数错误：主题为空");
}
inline LogLine delivery_without_payload()
{
    return error("[QoS] 添加报文参数错误：payload为空");
}
inline LogLine delivery_of_bad_qos(int qos)
{
    return error(printed("[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前%d）", qos));
}
inline LogLine deliveries_full(const std::string &id)
{
    return error(printed("[QoS] 客户端未完成队列已满(client=%s)，最大支持1000条，当前1000条", id.c_str()));
}
inline LogLine delivery_added(int qos, int packet_id, const std::string &id, int payload_length)
{
    return debug(printed("[QoS] 添加QoS%d报文到队列成功(msg_id=%d, client=%s, 载荷长度=%d)", qos, packet_id, id.c_str(),
                         payload_length));
}
inline LogLine delivery_removed(int packet_id, const std::string &id)
{
    return debug(printed("[QoS_REMOVE] msg_id=%d, client=%s", packet_id, id.c_str()));
}
inline LogLine delivery_confirmed(int packet_id, const std::string &id)
{
    return debug(printed("[QoS] 移除已确认报文(msg_id=%d, client=%s)，完全删除", packet_id, id.c_str()));
}
inline LogLine qos1_completed(const std::string &name, int packet_id)
{
    return info(printed("[QoS] QoS1 %s 完成: msg_id=%d", name.c_str(), packet_id));
}
inline LogLine qos2_completed_by_puback(int packet_id)
{
    return warn(printed("[QoS] QoS2 报文收到PUBACK(客户端降级)，强制完成: msg_id=%d", packet_id));
}
inline LogLine ack_mismatch(const std::string &name, int packet_id, int qos)
{
    return error(printed("[QoS] %s 不匹配: msg_id=%d QoS=%d", name.c_str(), packet_id, qos));
}
inline LogLine pubrec_answered(int packet_id)
{
    return info(printed("[QoS] ✅ 收到PUBREC -> 发送PUBREL: msg_id=%d", packet_id));
}
inline LogLine pubrel_answered(int packet_id)
{
    return info(printed("[QoS] ✅ 收到PUBREL -> 发送PUBCOMP: msg_id=%d", packet_id));
}
inline LogLine qos2_completed(int packet_id)
{
    return info(printed("[QoS] ✅ QoS2 完成: msg_id=%d", packet_id));
}
inline LogLine ack_traced(const std::string &name, int packet_id, int qos, int state)
{
    return debug(printed("[QoS追踪] ACK: %s | msg_id=%d | QoS=%d | state=%d", name.c_str(), packet_id, qos, state));
}
inline LogLine ack_type_unsupported(int packet_id)
{
    return error(printed("[QoS] 不支持的ACK类型: msg_id=%d", packet_id));
}
inline LogLine delivery_expiry_set(unsigned packet_id, unsigned seconds)
{
    return info(printed("[QoS/Expiry] 设置消息过期: msg_id=%u, 过期时间=%u 秒", packet_id, seconds));
}
inline LogLine deliveries_dropped(const std::string &id, int count)
{
    return info(printed("[QoS] 清理客户端报文完成(client=%s)：共清理%d条", id.c_str(), count));
}

inline LogLine delivery_expired(unsigned packet_id, const std::string &topic)
{
    return warn(printed("[QoS/Expiry] 消息已过期，自动丢弃: msg_id=%u, topic=%s", packet_id, topic.c_str()));
}
inline LogLine delivery_given_up(int packet_id)
{
    return error(printed("[QoS] 报文重试次数超限(msg_id=%d)，丢弃", packet_id));
}
inline LogLine delivery_repeats(int packet_id, const std::string &id)
{
    return debug(printed("[QoS_SEND] msg_id=%d, client=%s", packet_id, id.c_str()));
}
inline LogLine repeat_without_packet()
{
    return error("[QoS] 重发报文参数错误：pkt/客户端为空");
}
inline LogLine repeat_of_bad_payload(int length)
{
    return error(printed("[QoS] 重发报文参数错误：payload为空/长度超限（最大支持2048字节，当前%d字节）", length));
}
inline LogLine repeat_not_encoded(int packet_id, int code, const std::string &text)
{
    return error(
        printed("[QoS] 重发报文失败(msg_id=%d)：编码错误（错误码：%d，描述：%s）", packet_id, code, text.c_str()));
}
inline LogLine repeat_not_sent(int packet_id, int result)
{
    return error(printed("[QoS] 重发报文失败(msg_id=%d)：发送错误（返回码：%d）", packet_id, result));
}
inline LogLine delivery_repeated(int qos, int packet_id, int count, int interval_ms, int payload_length)
{
    return info(printed("[QoS] 重发QoS%d报文成功(msg_id=%d)，重试次数=%d，下次间隔=%dms，载荷长度=%d", qos, packet_id,
                        count, interval_ms, payload_length));
}
inline LogLine deliveries_ready()
{
    return info("[QoS] 可靠投递模块初始化成功");
}
inline LogLine deliveries_down(int count)
{
    return info(printed("[QoS] 可靠投递模块已销毁，共清理%d条未完成报文", count));
}

} // namespace tarn::test::logged

#endif
