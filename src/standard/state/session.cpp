// session.cpp - the table of sessions. See session.h.
#include "session.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace tarn::standard {
namespace {

uint64_t hash_of(uint64_t number)
{
    return hash_pair(number, uint64_t{0});
}

} // namespace

Sessions::~Sessions()
{
    while (first_)
        destroy(*first_);
    while (spares_)
        free(std::exchange(spares_, spares_->next));
}

// Null without memory.
void *Sessions::take_block(size_t id_size) noexcept
{
    if (id_size > kShortId || !spares_)
        return malloc(sizeof(Session) + std::max(id_size, kShortId));
    --spare_count_;
    return std::exchange(spares_, spares_->next);
}

void Sessions::give_back_block(void *block, size_t id_size) noexcept
{
    if (id_size > kShortId || spare_count_ == kSparesMax)
        return free(block);
    spares_ = new (block) Spare{spares_};
    ++spare_count_;
}

Session *Sessions::find(const Key &key) const noexcept
{
    return by_id_.find(key.hash, [&key](const Session &session) { return session.text == key.id; });
}

Session *Sessions::find(uint64_t number) const noexcept
{
    const SessionNumber *const found = by_number_.find(
        hash_of(number), [number](const SessionNumber &entry) { return entry.session->number == number; });
    return found ? found->session : nullptr;
}

Session *Sessions::make(const Key &key, const DeliveryBounds &bounds, uint64_t number) noexcept
{
    const std::string_view id    = key.id;
    void *const            block = take_block(id.size());
    if (!block)
        return nullptr;
    if (number == 0)
        number = last_number_ + 1;
    note_number(number);
    auto *const session = new (block) Session(number, pool_, bounds);
    char *const text    = reinterpret_cast<char *>(session + 1);
    memcpy(text, id.data(), id.size());
    session->text = {text, id.size()};
    by_id_.insert(*session, key.hash);
    by_number_.insert(session->by_number, hash_of(number));
    session->previous              = last_;
    (last_ ? last_->next : first_) = session;
    last_                          = session;
    return session;
}

void Sessions::set_known_to_files(Session &session, bool is_known) noexcept
{
    kept_ += is_known;
    kept_ -= session.is_known_to_files;
    session.is_known_to_files = is_known;
}

void Sessions::destroy(Session &session) noexcept
{
    set_known_to_files(session, false);
    set_nothing_due(session);
    by_id_.remove(session);
    by_number_.remove(session.by_number);
    if (cursor_ == &session)
        cursor_ = session.next;
    (session.previous ? session.previous->next : first_) = session.next;
    (session.next ? session.next->previous : last_)      = session.previous;
    const size_t id_size                                 = session.text.size();
    session.~Session();
    give_back_block(&session, id_size);
}

void Sessions::set_due(Session &session, uint64_t due_ms) noexcept
{
    due_.remove(session);
    session.due_ms = due_ms;
    (void)due_.add(session);
}

Session *Sessions::first_due(uint64_t now_ms) const noexcept
{
    Session *const first = due_.first();
    return first && first->due_ms <= now_ms ? first : nullptr;
}

} // namespace tarn::standard
