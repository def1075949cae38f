// persist.h - lines of src/persist that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_PERSIST_H
#define TARN_TESTS_LOG_LINES_PERSIST_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine subscriptions_restored(const std::string &id, int count)
{
    return info(printed("[persist] ✅ 恢复订阅成功: %s 共 %d 条", id.c_str(), count));
}
inline LogLine no_kept_messages_file(const std::string &path)
{
    return debug(printed("[persist][定位] 无离线消息文件：%s", path.c_str()));
}
inline LogLine persist_no_memory()
{
    return error("[persist] 内存分配失败");
}
inline LogLine kept_messages_without_list()
{
    return warn("[persist][定位] 消息格式错误：找不到 msgs 节点");
}

inline LogLine kept_message_dropped(const std::string &id)
{
    return warn(printed("[persist][定位] 离线消息溢出，丢弃最早一条: %s", id.c_str()));
}

inline LogLine subscriptions_separator()
{
    return info("[persist] ==============================================");
}
inline LogLine client_subscriptions_restored(const std::string &id, int count)
{
    return info(printed("[persist] ✅ 恢复客户端订阅: %s  订阅数=%d", id.c_str(), count));
}
inline LogLine subscriptions_loading()
{
    return info("[persist] 🔥 BROKER 启动 - 自动加载所有持久化订阅");
}
inline LogLine no_subscriptions_folder()
{
    return warn("[persist] 订阅目录不存在");
}
inline LogLine subscriptions_loaded()
{
    return info("[persist] ✅ 所有持久化订阅加载完成");
}

inline LogLine retained_not_saved()
{
    return error("[persist] retain save failed");
}
inline LogLine retained_saved(int count)
{
    return debug(printed("[persist] retain saved: %d entries", count));
}
inline LogLine no_retained_file()
{
    return warn("[persist] no retain file");
}
inline LogLine retained_loaded(int count)
{
    return info(printed("[persist] retain loaded: %d entries", count));
}

inline LogLine temporary_not_written(const std::string &path)
{
    return error(printed("[persist] 写入临时文件失败(重试3次): %s", path.c_str()));
}
inline LogLine file_not_renamed(const std::string &path)
{
    return error(printed("[persist] 重命名失败: %s", path.c_str()));
}
inline LogLine folder_created(const std::string &path)
{
    return debug(printed("[persist] 目录创建成功: %s", path.c_str()));
}
inline LogLine persist_ready(const std::string &path)
{
    return info(printed("[persist] 持久化模块初始化完成，路径：%s", path.c_str()));
}
inline LogLine persist_ends()
{
    return info("[persist] 持久化模块销毁中...");
}
inline LogLine persist_flushed()
{
    return debug("[persist] 执行强制刷盘(无操作，已同步写入)");
}

} // namespace tarn::test::logged

#endif
