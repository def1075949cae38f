// client.h - lines of src/client that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_CLIENT_H
#define TARN_TESTS_LOG_LINES_CLIENT_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine keepalive_refused(unsigned handle, int state)
{
    return error(printed("client_set_keepalive: 无效客户端实例（handle=0x%08X, state=%d）", handle, state));
}
inline LogLine keepalive_set(unsigned handle, const std::string &id, unsigned long keepalive_s, unsigned long timeout_s)
{
    return debug(printed("client_set_keepalive: handle=0x%08X, cid=%s, keepalive=%lu秒（超时阈值=%lu秒）", handle,
                         id.c_str(), keepalive_s, timeout_s));
}

inline LogLine client_disconnected(unsigned handle, int reason, unsigned code)
{
    return info(printed("Client disconnected: handle=%u, reason=%d, error=%u", handle, reason, code));
}
inline LogLine client_not_created(unsigned handle)
{
    return error(printed("Create client failed, close handle=%u", handle));
}
inline LogLine unknown_network_event(int type)
{
    return warn(printed("Unknown NetIP event type: %d", type));
}

inline LogLine session_kept_until(const std::string &id, unsigned left_s, unsigned long long deadline_s)
{
    return info(printed("[MQTT5] 会话已设置过期: %s, 剩余=%u秒, 截止=%llu", id.c_str(), left_s, deadline_s));
}
inline LogLine session_removed_at_close(const std::string &id)
{
    return info(printed("[MQTT5] 会话立即删除(expiry=0): %s", id.c_str()));
}
inline LogLine connection_lost_with_will(const std::string &id)
{
    return info(printed("[遗嘱调试][异常断开] ClientID=%s, 未发送DISCONNECT报文，强制触发遗嘱发送", id.c_str()));
}
inline LogLine will_delayed(const std::string &id, unsigned delay_s)
{
    return warn(printed("[WILL-ENTER] 客户端进入遗嘱延迟: %s, will_delay_sec=%u", id.c_str(), delay_s));
}
inline LogLine client_closed(const std::string &id)
{
    return warn(printed("[FREE-NORMAL] 客户端正常关闭: %s", id.c_str()));
}
inline LogLine close_completed(const std::string &id)
{
    return debug(printed("[遗嘱调试][客户端关闭完成] ClientID=%s, 状态改为CLOSED", id.c_str()));
}
inline LogLine max_packet_size_at_close(unsigned size, const std::string &id)
{
    return debug(printed("[MQTT5] Client close: max_packet_size=%u, client=%s", size, id.c_str()));
}
inline LogLine client_closed_already(const std::string &id)
{
    return debug(printed("[遗嘱调试][关闭客户端] ClientID=%s, 状态已关闭，跳过", id.c_str()));
}

inline LogLine client_pool_full(int max)
{
    return error(printed("Client pool full, max=%d", max));
}

inline LogLine client_id_generated(const std::string &id)
{
    return info(printed("[MQTT标准] 空ClientID，Broker自动生成: %s", id.c_str()));
}
inline LogLine client_id_set(unsigned handle, const std::string &id)
{
    return debug(printed("Set client ID: handle=%u, cid=%s", handle, id.c_str()));
}

inline LogLine client_manager_ready(int max)
{
    return info(printed("client_mgr_init success, dynamic max_clients = %d", max));
}
inline LogLine client_manager_down()
{
    return info("Client manager deinit success (QoS module destroyed)");
}

inline LogLine send_thread_started()
{
    return info("[SEND_THREAD] 发送线程启动");
}
inline LogLine send_thread_ended()
{
    return info("[SEND_THREAD] 发送线程退出");
}

inline LogLine session_deletion_started()
{
    return info("[MQTT5] 开始清理过期会话...");
}
inline LogLine session_deleted(const std::string &id, unsigned long long deadline_s)
{
    return info(printed("[MQTT5] 清理过期会话: %s (deadline=%llu)", id.c_str(), deadline_s));
}
inline LogLine session_deletion_ended()
{
    return info("[MQTT5] 过期会话清理完成");
}

inline LogLine timeout_looks_at(int block, int index, int used, int state, const std::string &id, unsigned handle,
                                unsigned long last_active_ms, unsigned long keepalive_ms)
{
    // clang-format off
    return debug(printed("[超时扫描-详细] block=%d, idx=%d | used=%d | state=%d | cid=%s | handle=0x%x | last_active=%lu | keepalive=%lu",
                         block, index, used, state, id.c_str(), handle, last_active_ms, keepalive_ms));
    // clang-format on
}
inline LogLine timeout_computed(const std::string &id, unsigned long idle_ms, unsigned long limit_ms,
                                const std::string &is_over)
{
    return debug(printed("[超时计算] cid=%s | 不活跃=%lu ms | 阈值=%lu ms | 已超时? %s", id.c_str(), idle_ms, limit_ms,
                         is_over.c_str()));
}
inline LogLine timeout_noted(const std::string &id, unsigned long idle_ms)
{
    return warn(printed("[超时待关闭] 加入关闭列表 → cid=%s | 不活跃%lu ms", id.c_str(), idle_ms));
}
inline LogLine timeout_block_empty(int block)
{
    return debug(printed("[超时扫描] block=%d 无客户端，跳过", block));
}
inline LogLine timeout_closes(const std::string &id, int state, unsigned handle)
{
    return warn(printed("[超时执行关闭] 真实关闭 → cid=%s, state=%d, handle=0x%x", id.c_str(), state, handle));
}
inline LogLine timeout_closed(const std::string &id)
{
    return warn(printed("[超时完成] 客户端已关闭 → cid=%s", id.c_str()));
}
inline LogLine timeout_scan_started(unsigned long now_ms, int block)
{
    return debug(printed("[超时清理] 开始扫描 | 当前时间 ms = %lu | 扫描块起点 = %d", now_ms, block));
}
inline LogLine timeout_scan_ended(int count)
{
    return debug(printed("[超时清理] 本次扫描完成，待关闭客户端数量 = %d", count));
}
inline LogLine timeout_scan_closed(int count)
{
    return info(printed("[超时清理] 本次成功清理 %d 个超时客户端", count));
}

inline LogLine will_refused(const void *client, const std::string &topic, int payload_length, int qos)
{
    return error(printed("[遗嘱调试][设置失败] 参数无效：client=%p, topic=%s, payload_len=%d（上限=2048）, qos=%d",
                         client, topic.c_str(), payload_length, qos));
}
inline LogLine will_given(const std::string &id, const std::string &topic, int payload_length, int qos, int retain)
{
    return debug(printed("[遗嘱调试][设置开始] ClientID=%s, 原始入参：topic=%s, payload_len=%d, qos=%d, retain=%d",
                         id.c_str(), topic.c_str(), payload_length, qos, retain));
}
inline LogLine will_stored(const std::string &id, const std::string &topic, int payload_length, int qos, int retain,
                           int used)
{
    return info(printed(
        "[遗嘱调试][设置成功] ClientID=%s, 最终存储：topic=%s, payload_len=%d, qos=%d, retain=%d, will_msg_used=%d",
        id.c_str(), topic.c_str(), payload_length, qos, retain, used));
}
inline LogLine will_delay_stored(const std::string &id, int delay_s, int expiry_s)
{
    return info(printed("[遗嘱增强] ClientID=%s 设置完成：延迟=%ds, 过期=%ds", id.c_str(), delay_s, expiry_s));
}

} // namespace tarn::test::logged

#endif
