// sub.h - lines of src/sub that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_SUB_H
#define TARN_TESTS_LOG_LINES_SUB_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine filter_empty()
{
    return error("[DEBUG] mqtt_filter_is_valid：空过滤器非法");
}
inline LogLine filter_hash_without_slash(const std::string &filter, int position)
{
    return error(printed("[DEBUG] mqtt_filter_is_valid：#前必须是/（filter=%s, #位置=%d）", filter.c_str(), position));
}

inline LogLine retained_full()
{
    return error("保留消息数量超限（max=1000）");
}
inline LogLine retained_added(const std::string &topic)
{
    return info(printed("MQTT标准：新增Topic=%s的保留消息", topic.c_str()));
}
inline LogLine retained_replaced(const std::string &topic)
{
    return info(printed("MQTT标准：更新Topic=%s的保留消息", topic.c_str()));
}
inline LogLine retained_set_empty(const std::string &topic)
{
    return debug(printed("[DEBUG] retain_msg_set：空Payload，删除旧保留消息（topic=%s）", topic.c_str()));
}
inline LogLine retained_removed(const std::string &topic)
{
    return info(printed("MQTT标准：删除Topic=%s的保留消息（空Payload）", topic.c_str()));
}
inline LogLine retained_set_started(const std::string &topic, unsigned payload_length, int qos)
{
    return debug(printed("[DEBUG] retain_msg_set：开始处理（topic=%s, payload_len=%u, qos=%d）", topic.c_str(),
                         payload_length, qos));
}
inline LogLine retained_set_no_topic()
{
    return error("[DEBUG] retain_msg_set：无效Topic（空指针/空字符串）");
}
inline LogLine retained_set_locked(int count)
{
    return debug(printed("[TRACE] retain_msg_set：已加锁，当前保留消息数量=%d", count));
}
inline LogLine retained_get_started(const std::string &topic, const void *message)
{
    return debug(printed("[DEBUG] retain_msg_get：开始查询（topic=%s, msg_ptr=%p）", topic.c_str(), message));
}
inline LogLine retained_get_locked(int count)
{
    return debug(printed("[TRACE] retain_msg_get：已加锁，当前保留消息数量=%d", count));
}
inline LogLine retained_get_looks_at(int index, const std::string &topic)
{
    return debug(printed("[TRACE] retain_msg_get：检查保留消息（索引=%d, topic=%s）", index, topic.c_str()));
}
inline LogLine retained_delete_started(const std::string &topic)
{
    return debug(printed("[DEBUG] retain_msg_delete：开始删除（topic=%s）", topic.c_str()));
}
inline LogLine retained_delete_invalid()
{
    return error("[DEBUG] retain_msg_delete：入参无效（topic=(nil)）");
}
inline LogLine retained_delete_locked(int count)
{
    return debug(printed("[TRACE] retain_msg_delete：已加锁，当前保留消息数量=%d", count));
}
inline LogLine retained_delete_looks_at(int index, const std::string &topic)
{
    return debug(printed("[TRACE] retain_msg_delete：检查保留消息（索引=%d, topic=%s）", index, topic.c_str()));
}
inline LogLine retained_expired(const std::string &topic)
{
    return info(printed("保留消息已过期，自动清理: topic=%s", topic.c_str()));
}

inline LogLine sub_add_looks_at(int index, const std::string &id, const std::string &filter)
{
    return debug(printed("[TRACE] sub_add：检查重复订阅（索引=%d, client_id=%s, topic_filter=%s）", index, id.c_str(),
                         filter.c_str()));
}
inline LogLine subscription_updated(const std::string &id, const std::string &filter, int qos)
{
    return info(printed("MQTT标准：更新订阅：ClientID=%s, Topic=%s, QoS=%d", id.c_str(), filter.c_str(), qos));
}
inline LogLine sub_add_full(int count)
{
    return error(printed("[DEBUG] sub_add：订阅数量超限（当前=%d, 最大=10000）", count));
}
inline LogLine subscriptions_full()
{
    return error("订阅数量超限（max=10000）");
}
inline LogLine subscription_added(const std::string &id, const std::string &filter, int qos, int clean_session)
{
    return info(printed("MQTT标准：新增订阅：ClientID=%s, Topic=%s, QoS=%d, CleanSession=%d", id.c_str(),
                        filter.c_str(), qos, clean_session));
}
inline LogLine sub_remove_looks_at(int index, const std::string &id, const std::string &filter)
{
    return debug(printed("[TRACE] sub_remove：检查订阅（索引=%d, client_id=%s, topic_filter=%s）", index, id.c_str(),
                         filter.c_str()));
}
inline LogLine sub_remove_removes(int index, const std::string &filter)
{
    return debug(printed("[TRACE] sub_remove：移除订阅（索引=%d, topic_filter=%s）", index, filter.c_str()));
}
inline LogLine sub_remove_locked(int count)
{
    return debug(printed("[TRACE] sub_remove：已加锁，当前订阅数=%d", count));
}
inline LogLine sub_remove_ended(const std::string &id, int removed, int left)
{
    return debug(printed("[DEBUG] sub_remove：移除订阅完成（client_id=%s, 移除数量=%d, 剩余订阅数=%d）", id.c_str(),
                         removed, left));
}
inline LogLine subscription_removed(const std::string &id, const std::string &filter, int count)
{
    return info(printed("MQTT标准：移除订阅：ClientID=%s, Topic=%s, 移除数量=%d", id.c_str(), filter.c_str(), count));
}
inline LogLine sub_match_looks_at(int index, const std::string &id, const std::string &filter)
{
    return debug(printed("[TRACE] sub_match：检查订阅（索引=%d, client_id=%s, topic_filter=%s）", index, id.c_str(),
                         filter.c_str()));
}
inline LogLine sub_match_found(int index, const std::string &id)
{
    return debug(printed("[TRACE] sub_match：匹配成功（索引=%d, client_id=%s）", index, id.c_str()));
}
inline LogLine sub_match_started(const std::string &topic, int max)
{
    return debug(printed("[DEBUG] sub_match：开始匹配订阅（topic=%s, max_matched=%d）", topic.c_str(), max));
}
inline LogLine sub_match_invalid(const void *matches, int max)
{
    return error(printed("[DEBUG] sub_match：入参无效（topic=(nil), matched=%p, max_matched=%d）", matches, max));
}
inline LogLine sub_match_locked(int count)
{
    return debug(printed("[TRACE] sub_match：已加锁，当前订阅数=%d", count));
}
inline LogLine sub_match_ended(const std::string &topic, int count)
{
    return debug(printed("[DEBUG] sub_match：匹配完成（topic=%s, 匹配数量=%d）", topic.c_str(), count));
}
inline LogLine topic_matched(const std::string &topic, int count)
{
    return info(printed("MQTT标准：Topic=%s 匹配到 %d 个订阅者", topic.c_str(), count));
}
inline LogLine sub_add_started(const std::string &id, const std::string &filter, int qos, int clean_session)
{
    return debug(printed("[DEBUG] sub_add：开始添加订阅（client_id=%s, topic_filter=%s, qos=%d, clean_session=%d）",
                         id.c_str(), filter.c_str(), qos, clean_session));
}
inline LogLine sub_add_invalid(const std::string &id, const std::string &filter)
{
    return error(
        printed("[DEBUG] sub_add：无效的订阅参数（client_id=%s, topic_filter=%s）", id.c_str(), filter.c_str()));
}
inline LogLine sub_add_bad_qos(int qos)
{
    return error(printed("[DEBUG] sub_add：无效的QoS=%d（仅支持0/1/2）", qos));
}
inline LogLine sub_add_locked(int count)
{
    return debug(printed("[TRACE] sub_add：已加锁，当前订阅数=%d，最大容量=10000", count));
}
inline LogLine sub_add_with_id_bad_filter(const std::string &id, const std::string &filter)
{
    return error(
        printed("[DEBUG] sub_add_with_id：非法过滤器拒绝订阅（client_id=%s, filter=%s）", id.c_str(), filter.c_str()));
}
inline LogLine sub_remove_started(const std::string &id, const std::string &filter)
{
    return debug(
        printed("[DEBUG] sub_remove：开始移除订阅（client_id=%s, topic_filter=%s）", id.c_str(), filter.c_str()));
}
inline LogLine sub_remove_no_id()
{
    return error("[DEBUG] sub_remove：无效的ClientID（空指针/空字符串）");
}
inline LogLine sub_count_started(const std::string &id)
{
    return debug(printed("[DEBUG] sub_get_client_sub_count：开始统计（client_id=%s）", id.c_str()));
}
inline LogLine sub_count_no_id()
{
    return error("[DEBUG] sub_get_client_sub_count：无效的ClientID（空指针/空字符串）");
}
inline LogLine sub_count_looks_at(int index, const std::string &id)
{
    return debug(printed("[TRACE] sub_get_client_sub_count：检查订阅（索引=%d, client_id=%s）", index, id.c_str()));
}
inline LogLine client_subscriptions_counted(const std::string &id, int count)
{
    return info(printed("sub_get_client_sub_count：ClientID=%s, 订阅数量=%d", id.c_str(), count));
}

inline LogLine topic_match_result(const std::string &filter, const std::string &topic, int match)
{
    return debug(printed("[DEBUG] topic_match_wildcard：匹配结果（filter=%s, topic=%s, match=%d）", filter.c_str(),
                         topic.c_str(), match));
}

} // namespace tarn::test::logged

#endif
