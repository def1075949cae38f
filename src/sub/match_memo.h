// match_memo.h - which places of the table matched a topic, for the next message on it.
//
// Publishers send on the same topics again and again. What is remembered stands for as long as the index stays as it was
// (index_edition); the filters at these places are compared with their stamps again, and ids and QoS are read anew.
// Remembered are topics of some 60 characters that few entries match, in static memory; of two topics that share a place
// the later one. A topic that matched nothing is looked for each time.
#ifndef TARN_SUB_MATCH_MEMO_H
#define TARN_SUB_MATCH_MEMO_H

#include "subscription_index.h"

#include <span>

namespace tarn::sub {

// The places that match in table order, until the next call; none when that is not known. The index was checked.
[[nodiscard]] std::span<const int32_t> remembered_matches(const sub_mgr_t &manager, std::string_view topic) noexcept
    REQUIRES(manager.lock);
// All of the candidates match the topic.
void remember_matches(const sub_mgr_t &manager, std::string_view topic, const EntrySet &candidates) noexcept
    REQUIRES(manager.lock);

} // namespace tarn::sub

#endif
