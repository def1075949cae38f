// restore_subscriptions.cpp - at start every persisted subscription enters the table again, before any client is back.
#include "../base/text.h"
#include "../log/log.h"
#include "../sub/sub.hpp"
#include "persist_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>

namespace tarn::persist {
namespace {

constexpr const char *kSeparator   = "[persist] ==============================================";
constexpr size_t      kSuffixChars = 5; // ".json"

void restore_client(const char *file_name)
{
    const size_t length = strlen(file_name);
    char         client_id[PERSIST_ID_CHARS + 1]{};
    if (length > kSuffixChars)
        copy_text(client_id, file_name, std::min(length - kSuffixChars, sizeof client_id - 1));

    persist_session_t *const record = scratch_session(client_id);
    if (!record)
        return;
    Found found;
    if (read_absent(*record, found) == Loaded::Yes) {
        count_and_log(record->client_id, record->sub_count, found);
        for (int32_t i = 0; i < record->sub_count; ++i)
            sub::add(record->client_id, record->subs[i].topic, record->subs[i].qos, 0);
    }
    LOG_INFO("[persist] ✅ 恢复客户端订阅: %s  订阅数=%d", record->client_id, record->sub_count);
}

} // namespace

void restore_subscriptions() noexcept
{
    LOG_INFO("%s", kSeparator);
    LOG_INFO("[persist] 🔥 BROKER 启动 - 自动加载所有持久化订阅");
    LOG_INFO("%s", kSeparator);

    Path path;
    snprintf(path.text, sizeof path.text, "%s/%s", g_persist_root_path, kSubscriptionDirectory);
    DIR *const directory = opendir(path.text);
    if (!directory) {
        LOG_WARN("[persist] 订阅目录不存在");
        return;
    }
    while (const dirent *const entry = readdir(directory))
        if (strstr(entry->d_name, ".json"))
            restore_client(entry->d_name);
    closedir(directory);

    LOG_INFO("%s", kSeparator);
    LOG_INFO("[persist] ✅ 所有持久化订阅加载完成");
    LOG_INFO("%s", kSeparator);
}

} // namespace tarn::persist
