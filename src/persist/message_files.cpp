// message_files.cpp - see message_files.h.
#include "message_files.h"

#include "client_file.h"
#include "message_text.h"

#include <algorithm>

namespace tarn::persist {
namespace {

bool set_messages(ClientFile &file, const MessageText &text, const Surroundings *around) REQUIRES(g_save_mutex)
{
    if (!set_text(file, text.chars()))
        return false;
    file.reread                = text.reread();
    file.around                = around ? *around : Surroundings{};
    file.around.found.messages = Found::Messages::Taken;
    return true;
}

} // namespace

void take_stamps(const char *client_id, Stamp (&stamps)[3]) noexcept
{
    Path path;
    for (const Kind kind : kKinds) {
        client_path(path, kind, client_id);
        stamps[static_cast<int>(kind)] = stamp_of(path);
    }
}

void remember(const persist_session_t &record, const Surroundings &around) noexcept
{
    const Found &found = around.found;
    if (found.files() == 0 || found.messages_unread || // without files there is nothing to read
        (found.messages != Found::Messages::NoFile && found.messages != Found::Messages::Taken))
        return;
    MessageText text;
    text.set(record);
    ScopedLock lock(g_save_mutex);
    if (!text.ok() || find(Kind::Messages, record.client_id) ||
        count_files() >= SUB_CAPACITY) // so many can expect messages
        return;
    if (ClientFile *const file = find_or_make(Kind::Messages, record.client_id);
        file && set_messages(*file, text, &around))
        file->around.found.messages = found.messages;
}

Surroundings surroundings_of(const char *client_id) noexcept
{
    Surroundings around;
    {
        ScopedLock        lock(g_save_mutex);
        const ClientFile *file = find(Kind::Messages, client_id);
        if (!file || !file->reread.is_known() || !file->around.known)
            return {};
        around = file->around;
        if (!is_saved(*file))
            return around;
    }
    Stamp on_disk[3];
    take_stamps(client_id, on_disk);
    around.known = std::equal(on_disk, on_disk + 3, around.stamps);
    return around;
}

void forget_surroundings(const char *client_id) noexcept
{
    ScopedLock lock(g_save_mutex);
    if (ClientFile *const file = find(Kind::Messages, client_id))
        file->around = {};
    drop_if_saved(Kind::Messages, client_id);
}

bool put_messages(const persist_session_t &record, const Surroundings *known) noexcept
{
    MessageText text;
    text.set(record);
    Path path;
    client_path(path, Kind::Messages, record.client_id);
    if (!text.ok())
        return true;
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = path.usable ? waiter_of(behind) : nullptr;
    {
        ScopedLock        lock(g_save_mutex);
        ClientFile *const file =
            waiter ? find_or_make(Kind::Messages, record.client_id) : find(Kind::Messages, record.client_id);
        if (file && set_messages(*file, text, known))
            return save_behind(*file, behind, waiter);
        save_now(Kind::Messages, record.client_id); // as in put_text()
        drop_if_saved(Kind::Messages, record.client_id);
    }
    if (const char *const whole = text.c_str())
        safe_write(path, whole);
    return true;
}

bool append_message(const char *client_id, const persist_msg_t &message) noexcept
{
    SaveBehind *const behind = SaveBehind::of_this_thread();
    SaveWaiter *const waiter = waiter_of(behind);
    const LastMessage last(message);
    ScopedLock        lock(g_save_mutex);
    ClientFile *const file = find(Kind::Messages, client_id);
    if (!waiter || !file || file->removed || !last.append_to(file->text, file->reread))
        return false;
    if (!save_behind(*file, behind, waiter))
        save_now(Kind::Messages, client_id);
    return true;
}

bool keeps_messages_for(const char *client_id) noexcept
{
    ScopedLock              lock(g_save_mutex);
    const ClientFile *const file = find(Kind::Messages, client_id);
    return file && !file->removed && file->reread.count > 0;
}

} // namespace tarn::persist
