// manager.cpp - the subscription manager itself: both arrays, allocated once and emptied by every later start.
#include "../base/memory.h"
#include "../log/log.h"
#include "../persist/persist.hpp"
#include "subscription_index.h"

#include <sys/mman.h>
#include <unistd.h>
#include <utility>

constinit sub_mgr_t g_sub_mgr{};

namespace tarn::sub {
namespace {

// The array as it was allocated here, and how far it was written since its pages were given back. Under g_sub_mgr.lock.
constinit const sub_entry_t *g_own_subs = nullptr;
constinit int32_t            g_written  = 0;

// Both need the lock. The arrays are zeroed when allocated. Subscriptions that leave theirs are zeroed too; retained
// messages leave their bytes behind.
[[nodiscard]] bool empty_subscriptions(sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    if (manager.subs)
        memset(manager.subs, 0, static_cast<size_t>(entries_in(manager)) * sizeof(sub_entry_t));
    else
        g_own_subs = manager.subs = allocate_zeroed<sub_entry_t>(SUB_CAPACITY).release();
    manager.sub_count = 0;
    fit_index(manager);
    return manager.subs != nullptr;
}

[[nodiscard]] bool empty_retained(sub_mgr_t &manager) noexcept REQUIRES(manager.lock)
{
    if (manager.retains)
        memset(manager.retains, 0, RETAIN_CAPACITY * sizeof(retain_msg_t));
    else
        manager.retains = allocate_zeroed<retain_msg_t>(RETAIN_CAPACITY).release();
    manager.retain_count = 0;
    return manager.retains != nullptr;
}

uintptr_t round_up(const void *at, uintptr_t page)
{
    return (reinterpret_cast<uintptr_t>(at) + page - 1) / page * page;
}

} // namespace

void note_written(const sub_mgr_t &manager) noexcept
{
    g_written = std::max<int32_t>(g_written, entries_in(manager));
}

// Entries that are not in use are zero, and so are fresh pages. In portions, because a megabyte of pages takes some
// hundred microseconds, and the lock is held. A host's own array is left alone: it may lie anywhere.
void give_back_unused_entries() noexcept
{
    constexpr int32_t kPortion = 512;
    const auto        page     = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (;;) {
        ScopedLock    lock(g_sub_mgr.lock);
        const int32_t count = entries_in(g_sub_mgr);
        if (!g_sub_mgr.subs || g_sub_mgr.subs != g_own_subs || g_written - count < kPortion)
            return;
        const int32_t   keep  = std::max(count, g_written - kPortion);
        const uintptr_t begin = round_up(g_sub_mgr.subs + keep, page);
        const uintptr_t end   = reinterpret_cast<uintptr_t>(g_sub_mgr.subs + g_written) / page * page;
        if (begin < end)
            (void)madvise(reinterpret_cast<void *>(begin), end - begin, MADV_DONTNEED);
        g_written = keep;
    }
}

// If memory runs out at the second array, the first one stays, because another thread may be using it. The next call
// goes on from there.
bool init() noexcept
{
    LOG_DEBUG("[DEBUG] sub_init：开始初始化订阅管理器");
    persist::save_everything(); // while the retained store is what it is to be on the disk
    bool have_subs;
    bool have_retains;
    {
        ScopedLock lock(g_sub_mgr.lock);
        have_subs    = empty_subscriptions(g_sub_mgr);
        have_retains = have_subs && empty_retained(g_sub_mgr);
    }
    if (!have_subs) {
        LOG_ERROR("[DEBUG] sub_init：分配订阅数组失败（需要内存=%lu字节）", SUB_CAPACITY * sizeof(sub_entry_t));
        LOG_ERROR("分配订阅数组失败");
        return false;
    }
    LOG_DEBUG("[DEBUG] sub_init：订阅数组分配成功（容量=%d）", SUB_CAPACITY);
    if (!have_retains) {
        LOG_ERROR("[DEBUG] sub_init：分配保留消息数组失败（需要内存=%lu字节）", RETAIN_CAPACITY * sizeof(retain_msg_t));
        LOG_ERROR("分配保留消息数组失败");
        return false;
    }
    LOG_DEBUG("[DEBUG] sub_init：保留消息数组分配成功（容量=%d）", RETAIN_CAPACITY);
    LOG_DEBUG("[DEBUG] sub_init：互斥锁初始化成功"); // by the loader: it is never initialised again
    LOG_INFO("订阅管理器初始化成功（符合MQTT 3.1.1标准，版本=%s）", "1.0.0");
    return true;
}

void deinit() noexcept
{
    LOG_DEBUG("[DEBUG] sub_deinit：开始销毁订阅管理器");
    persist::save_everything();
    int32_t             subscriptions;
    int32_t             retained;
    owned<sub_entry_t>  subs;
    owned<retain_msg_t> retains;
    {
        ScopedLock lock(g_sub_mgr.lock);
        subscriptions = g_sub_mgr.sub_count;
        retained      = g_sub_mgr.retain_count;
        subs.reset(std::exchange(g_sub_mgr.subs, nullptr));
        retains.reset(std::exchange(g_sub_mgr.retains, nullptr));
        g_sub_mgr.sub_count    = 0;
        g_sub_mgr.retain_count = 0;
        g_own_subs             = nullptr;
        g_written              = 0;
    }
    LOG_DEBUG("[DEBUG] sub_deinit：释放订阅数组（当前订阅数=%d）", subscriptions);
    LOG_DEBUG("[DEBUG] sub_deinit：释放保留消息数组（当前保留消息数=%d）", retained);
    LOG_INFO("订阅管理器销毁成功");
}

} // namespace tarn::sub
