// record_fields.h - every field of a client record, and of the Side beside it: when it begins anew, and what guards it.
// A field without a row here does not compile.
#ifndef TARN_CLIENT_RECORD_FIELDS_H
#define TARN_CLIENT_RECORD_FIELDS_H

#include "../base/field_count.h"
#include "client_internal.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>

namespace tarn::client {

// When fields of a record are reset (life.cpp). After the manager gave a record's memory back, everything but its locks
// reads as zero.
enum class When : uint8_t {
    Create,   // a client gets the record
    Connect,  // its CONNECT: set by packet handling and by what it calls here
    Release,  // the client is gone
    TakeDown, // the manager goes down while it is there. Another thread may be closing it at that moment, so the fields
              // that close_seen() reads stay.
    Wipe,     // the last pin goes
};
constexpr int kMoments = 5;

enum class Cell : uint8_t {
    Kept, // stays as it is
    Zero, // zeroed under its guard, by life.cpp out of this table
    Set,  // gets a value, or is taken down in an order of its own, by the code of the moment
};

enum class Guard : uint8_t {
    Word,    // stands alone: Shared, one atomic access
    State,   // as a word, and written by step() of life.cpp only
    Id,      // id_mutex
    Send,    // send_lock; what is Shared is looked at without
    Will,    // will_lock; likewise
    Session, // session_mutex; counts are looked at without
    Bucket,  // bucket_mutex
    Hold,    // its own protocol: pins.cpp
    Lock,    // a lock itself: zero since the process began, and never written
};

struct Field {
    const char *name;
    size_t      at, size, align;
    bool        is_word, is_bytes; // a Shared number, an array of bytes
    Cell        cells[kMoments];
    Guard       guard;

    constexpr Cell operator[](When when) const { return cells[static_cast<int>(when)]; }
};

namespace rows {

using enum Cell;
using enum Guard;

template <class T> constexpr bool is_shared = !std::is_same_v<T, value_of<T>>;

template <class T>
constexpr Field field(const char *name, size_t at, Cell create, Cell connect, Cell release, Cell take_down, Cell wipe,
                      Guard guard)
{
    using Element       = std::remove_all_extents_t<T>;
    const bool is_bytes = std::is_array_v<T> && sizeof(Element) == 1;
    const bool is_word  = is_shared<T> && std::is_unsigned_v<value_of<T>>;
    return {name, at, sizeof(T), alignof(T), is_word, is_bytes, {create, connect, release, take_down, wipe}, guard};
}

#define ROW(name, ...) field<decltype(Of::name)>(#name, offsetof(Of, name), __VA_ARGS__)

using Of = mqtt_client_t;

// clang-format off
inline constexpr Field kRecord[] = {
    //                             create connect release down   wipe  guard
    ROW(handle,                    Set,   Kept,   Set,    Set,   Kept, Word),
    ROW(client_id,                 Kept,  Set,    Kept,   Kept,  Zero, Id),
    ROW(ip,                        Set,   Kept,   Kept,   Kept,  Zero, Id),
    ROW(port,                      Set,   Kept,   Kept,   Kept,  Kept, Word),
    ROW(state,                     Set,   Set,    Set,    Set,   Kept, State),
    ROW(last_active,               Set,   Set,    Kept,   Kept,  Kept, Word),
    ROW(next_msg_id,               Set,   Kept,   Kept,   Kept,  Kept, Word),
    ROW(qos2_pending_msg_id,       Zero,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(qos1_pending_msg_id,       Zero,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(clean_session,             Kept,  Set,    Zero,   Kept,  Kept, Word),
    ROW(disconnect_received,       Zero,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(session_restored,          Kept,  Set,    Zero,   Kept,  Kept, Word),
    ROW(broker,                    Set,   Kept,   Kept,   Kept,  Kept, Word),
    ROW(codec,                     Set,   Set,    Kept,   Kept,  Kept, Word),    // word by word
    ROW(send_queue,                Kept,  Kept,   Set,    Set,   Set,  Send),    // drop_ring()
    ROW(send_head,                 Zero,  Kept,   Set,    Set,   Set,  Send),
    ROW(send_tail,                 Zero,  Kept,   Set,    Set,   Set,  Send),
    ROW(send_lock,                 Kept,  Kept,   Kept,   Kept,  Kept, Lock),
    ROW(used,                      Set,   Kept,   Set,    Set,   Kept, Word),    // 1 shows the others: last at create
    ROW(timeout_closing,           Kept,  Kept,   Zero,   Kept,  Kept, Word),    // and by any sign of life
    ROW(keepalive_ms,              Kept,  Set,    Kept,   Kept,  Kept, Word),    // the next client's until its CONNECT
    ROW(will_msg_used,             Zero,  Set,    Zero,   Kept,  Kept, Will),
    ROW(will_topic,                Set,   Set,    Set,    Set,   Set,  Will),    // freed
    ROW(will_payload,              Set,   Set,    Set,    Set,   Set,  Will),    // freed
    ROW(will_payload_len,          Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_qos,                  Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_retain,               Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_sent,                 Zero,  Set,    Zero,   Kept,  Kept, Will),
    ROW(will_lock,                 Kept,  Kept,   Kept,   Kept,  Kept, Lock),
    ROW(max_packet_size,           Set,   Set,    Kept,   Kept,  Kept, Word),
    ROW(session_expiry_interval,   Zero,  Set,    Zero,   Kept,  Kept, Word),
    ROW(session_expiry_deadline,   Zero,  Kept,   Zero,   Kept,  Kept, Word),
    ROW(will_delay_interval,       Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_msg_expiry_interval,  Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_payload_format,       Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_content_type,         Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_response_topic,       Zero,  Set,    Kept,   Kept,  Kept, Will),
    ROW(will_correlation_data,     Zero,  Kept,   Kept,   Kept,  Kept, Will),
    ROW(will_correlation_len,      Zero,  Kept,   Kept,   Kept,  Kept, Will),
    ROW(will_delay_deadline,       Zero,  Kept,   Zero,   Kept,  Kept, Will),
    ROW(will_delay_pending,        Zero,  Set,    Zero,   Zero,  Kept, Will),
    ROW(session,                   Set,   Set,    Set,    Set,   Kept, Session), // empty_session(), clear_session()
};
// clang-format on

#undef ROW
#define ROW(name, ...) field<decltype(OfSide::name)>(#name, offsetof(OfSide, name), __VA_ARGS__)

using OfSide = Side;

// What belongs to the place, and not to the client that has it, is Kept.
// clang-format off
inline constexpr Field kSide[] = {
    //                             create connect release down   wipe  guard
    ROW(pins_and_marks,                      Kept,  Kept,   Set,    Set,   Set,  Hold),
    ROW(generation,                Set,   Kept,   Kept,   Kept,  Kept, Word),
    ROW(blocked_round,             Kept,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(listed,                    Kept,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(awaits_retry,              Kept,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(refusals,                  Set,   Kept,   Kept,   Kept,  Kept, Word),
    ROW(flushing,                  Kept,  Kept,   Kept,   Kept,  Kept, Send),
    ROW(last_packet,               Set,   Kept,   Kept,   Kept,  Kept, Send),
    ROW(sent_until,                Kept,  Kept,   Kept,   Kept,  Kept, Send),    // means something with last_packet only
    ROW(next_listed,               Kept,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(subs_high,                 Set,   Set,    Set,    Set,   Kept, Word),    // as `session`
    ROW(msgs_high,                 Set,   Set,    Set,    Set,   Kept, Word),
    ROW(keepalive_ms,              Set,   Kept,   Kept,   Kept,  Kept, Word),    // goes back into the record
    ROW(will_bucket,               Kept,  Kept,   Kept,   Kept,  Kept, Word),
    ROW(bucket,                    Kept,  Set,    Set,    Set,   Kept, Bucket),  // enter_bucket(), leave_chain()
    ROW(newer,                     Kept,  Set,    Set,    Set,   Kept, Bucket),
    ROW(older,                     Kept,  Set,    Set,    Set,   Kept, Bucket),
    ROW(session_mutex,                   Kept,  Kept,   Kept,   Kept,  Kept, Lock),
    ROW(id_mutex,                     Kept,  Kept,   Kept,   Kept,  Kept, Lock),
};
// clang-format on

#undef ROW

// One row for each field, in their order, with nothing but padding between.
template <class Record> consteval bool cover(std::span<const Field> fields)
{
    size_t end = 0;
    for (const Field &field : fields) {
        if (field.at < end || field.at - end >= field.align)
            return false;
        end = field.at + field.size;
    }
    return sizeof(Record) - end < alignof(Record) && fields.size() == field_count<Record>();
}

// life.cpp zeroes words, and bytes under a lock that it takes there.
constexpr bool can_be_zeroed(const Field &field)
{
    const bool is_locked = field.guard == Id || field.guard == Send || field.guard == Will;
    return is_locked ? field.is_word || field.is_bytes : field.guard == Word && field.is_word;
}

constexpr bool is_zeroed(const Field &field)
{
    return std::ranges::find(field.cells, Zero) != std::end(field.cells);
}

static_assert(cover<mqtt_client_t>(kRecord), "a row for each field of a client record");
static_assert(cover<Side>(kSide), "a row for each field of a Side");
static_assert(std::ranges::all_of(kRecord, [](const Field &f) { return !is_zeroed(f) || can_be_zeroed(f); }));
static_assert(std::ranges::none_of(kSide, is_zeroed), "nobody would do it");

} // namespace rows

using rows::kRecord;

} // namespace tarn::client

#endif
