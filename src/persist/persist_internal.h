// persist_internal.h - paths, texts and locks that the files of this module share.
#ifndef TARN_PERSIST_PERSIST_INTERNAL_H
#define TARN_PERSIST_PERSIST_INTERNAL_H

#include "../base/memory.h"
#include "../base/mutex.h"
#include "persist.hpp"
#include "replace_files.h"

#include <cstdarg>
#include <string_view>

namespace tarn::persist {

// ---- paths

// <root>/<directory>/<id>.json. A path that an id with "/" would lead elsewhere, or that is too long together with
// ".tmp", is not usable: such a client has no files.
void client_path(Path &path, const char *directory, const char *client_id) noexcept;

// A path that a host gave; longer ones than a path may be, with ".tmp", are not usable.
Path path_of(const char *text) noexcept;

constexpr const char *kSessionDirectory      = "session";
constexpr const char *kSubscriptionDirectory = "subscription";
constexpr const char *kMessageDirectory      = "message";

// A caller's record may lack its terminator. Where it is there it is not written: in a client's record it would often
// take a page of its own.
inline void terminate_id(persist_session_t &record) noexcept
{
    if (char &last = record.client_id[sizeof record.client_id - 1]; last != '\0')
        last = '\0';
}

// ---- texts

// A text that grows as it is appended to. After an allocation failed it stays as it was and ok() is false.
class Text {
public:
    void reserve(size_t characters) noexcept { ok_ = ok_ && chars_.reserve(characters); }
    void append(std::string_view piece) noexcept;
    void append_format(const char *format, ...) noexcept __attribute__((format(printf, 2, 3)));
    void append_escaped(std::string_view value, bool braces_too = false) noexcept;
    void append_hex(const uint8_t *bytes, size_t count) noexcept;
    void cut(size_t characters) noexcept;

    bool        ok() const noexcept { return ok_; }
    const char *c_str() noexcept;

    const GrowArray<char> &chars() const noexcept { return chars_; }

private:
    GrowArray<char> chars_;
    bool            ok_ = true;
};

// Decodes the escapes of one text value into `to` (at most `limit` bytes and a terminator).
void unescape(char *to, size_t limit, std::string_view raw) noexcept;
// Bytes decoded from hex pairs, at most `limit`.
size_t unhex(uint8_t *to, size_t limit, std::string_view pairs) noexcept;

// ---- files

void make_directory(const char *path) noexcept; // if there is nothing of this name

// Writes `text` to a path that is known to be usable, or says that it cannot.
void safe_write(const Path &path, const char *text) noexcept;

// Serialises writes, and reading before writing, of one client's files. Taken before g_persist_mutex, and not held while
// the disk is waited for, but where messages are changed without a SaveBehind.
Mutex &files_mutex(const char *client_id) noexcept;

// g_persist_mutex, but not for a thread with a SaveBehind: it does not wait for what others read.
class PersistLock {
public:
    PersistLock() noexcept NO_LOCK_ANALYSIS : held_(!SaveBehind::of_this_thread())
    {
        if (held_)
            g_persist_mutex.lock();
    }
    ~PersistLock() NO_LOCK_ANALYSIS
    {
        if (held_)
            g_persist_mutex.unlock();
    }
    PersistLock(const PersistLock &)            = delete;
    PersistLock &operator=(const PersistLock &) = delete;

private:
    bool held_;
};

// load_session without a word: the record from the client's files, and which of them there were.
Loaded read_session(persist_session_t &record, Found &found) noexcept;
// The same for a client that is away: what was found is remembered for the first message that comes for it.
Loaded read_absent(persist_session_t &record, Found &found) noexcept;
// Counts and logs what a load found.
void count_and_log(const char *client_id, int32_t subscriptions, const Found &found) noexcept;
// Clears the clean-session flag of a record with an id when its client has a subscription file; false when it has not.
bool keep_if_subscribed(persist_session_t &record) noexcept;
void restore_subscriptions() noexcept; // everybody's, into the table

// Writes those files that `what` names; nothing for a clean session.
void write_session(persist_session_t &record, uint8_t what) noexcept;

} // namespace tarn::persist

#endif
