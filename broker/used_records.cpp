#include "used_records.h"

#include <atomic>

#include <tarn_sdk_mqtt_broker/base/limits.h>
#include <tarn_sdk_mqtt_broker/client/client.h>

namespace tarn::broker {
namespace {

template <class T> T peek(T &field, std::memory_order order = std::memory_order_relaxed)
{
    return std::atomic_ref<T>(field).load(order);
}

// Published, and yet used. One that waits for its delay comes back when that is over.
bool is_used_up(mqtt_client_t &record)
{
    return peek(record.used, std::memory_order_acquire) != 0 && peek(record.state) == CLIENT_WILL_PENDING &&
           peek(record.will_delay_pending) == 0;
}

size_t used_up_in(client_pool_block_t &block)
{
    size_t count = 0;
    for (int32_t i = 0; peek(block.used) > 0 && i < block.capacity; ++i)
        count += peek(block.used_flags[i]) != 0 && is_used_up(block.records[i]);
    return count;
}

} // namespace

size_t used_up_records()
{
    size_t        count  = 0;
    const int32_t blocks = peek(g_client_mgr.block_count, std::memory_order_acquire);
    for (int32_t i = 0; i < blocks; ++i)
        count += used_up_in(g_client_mgr.blocks[i]);
    return count;
}

RecordWatch::News RecordWatch::look(size_t used_up)
{
    const News news = used_up * 100 >= records_ * kEndPercent    ? AlmostAll
                      : used_up * 100 >= records_ * kTellPercent ? Many
                                                                 : None;
    if (news <= told_)
        return None;
    told_ = news;
    return news;
}

} // namespace tarn::broker
