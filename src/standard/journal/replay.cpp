// replay.cpp - see replay.h.
#include "replay.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace tarn::standard {
namespace {

constexpr uint64_t kFirst = 1; // number of a directory's first pair

// Null at the end, and, with errno, when the directory cannot be read.
const dirent *next_entry(DIR *entries)
{
    errno = 0;
    return readdir(entries);
}

// False and errno when the directory cannot be read.
template <class Visit> bool for_each_file(Disk &disk, int directory, Visit visit)
{
    Fd         again   = disk.open(directory, ".", O_RDONLY | O_DIRECTORY);
    DIR *const entries = again ? fdopendir(again.get()) : nullptr;
    if (!entries)
        return false;
    again.release(); // closedir() closes it
    while (const dirent *const entry = next_entry(entries)) {
        NamedFile file;
        if (parse_name(entry->d_name, file))
            visit(entry->d_name, file);
    }
    const int error = errno;
    closedir(entries);
    errno = error;
    return error == 0;
}

bool open_reader(Disk &disk, int directory, const FileName &name, Fd &file, uint64_t &size)
{
    struct stat status = {};
    file               = disk.open(directory, name.text, O_RDONLY | O_NONBLOCK);
    if (!file || fstat(file.get(), &status) != 0)
        return false;
    size = static_cast<uint64_t>(status.st_size);
    return true;
}

} // namespace

bool Replay::fail(OpenStatus status, const FileName &file) noexcept
{
    result_.status = status;
    result_.error  = status == OpenStatus::Failed ? errno : 0;
    result_.file   = file;
    return false;
}

bool Replay::fail_to_read(ReadStatus status, const FileName &file) noexcept
{
    switch (status) {
    case ReadStatus::NotOurs:
        return fail(OpenStatus::NotOurs, file);
    case ReadStatus::OtherVersion:
        return fail(OpenStatus::OtherVersion, file);
    case ReadStatus::NoMemory:
        return fail(OpenStatus::NoMemory, file);
    case ReadStatus::Failed:
        return fail(OpenStatus::Failed, file);
    default:
        return fail(OpenStatus::Damaged, file);
    }
}

bool Replay::list_files() noexcept
{
    const bool listed = for_each_file(disk_, directory_, [this](const char *, const NamedFile &file) {
        if (file.temporary)
            return;
        uint64_t &newest = file.kind == FileKind::State ? found_.state : found_.last_journal;
        newest           = std::max(newest, file.number);
    });
    return listed || fail(OpenStatus::Failed, {});
}

// The first pair is made journal first, and nothing is written to it before its checkpoint is there.
bool Replay::see_that_it_is_new() noexcept
{
    if (found_.last_journal == 0)
        return true;
    const bool may_be_unfinished = found_.last_journal == kFirst;
    if (may_be_unfinished && !read_journal(kFirst))
        return false;
    return (may_be_unfinished && found_.journals_size == 0) ||
           fail(OpenStatus::Missing, name_of(FileKind::State, found_.last_journal));
}

// Visits records up to the first that ends the reading, and says what that was: Record for a refused one or the end of
// a checkpoint.
ReadStatus Replay::visit_records(RecordReader &reader, Record &last) noexcept
{
    for (;;) {
        const ReadStatus status = reader.next(last);
        if (status != ReadStatus::Record || last.type == kEndOfState)
            return status;
        if (!visitor_.record(last.type, last.bytes))
            return status;
        ++result_.records;
    }
}

bool Replay::read_state() noexcept
{
    const FileName name = name_of(FileKind::State, found_.state);
    Fd             file;
    if (!open_reader(disk_, directory_, name, file, found_.state_size))
        return fail(OpenStatus::Failed, name);
    RecordReader reader(disk_, std::move(file), found_.state_size);
    if (const ReadStatus header = reader.read_header(FileKind::State); header != ReadStatus::Record)
        return fail_to_read(header, name);
    Record last;
    if (const ReadStatus status = visit_records(reader, last); status != ReadStatus::Record)
        return fail_to_read(status, name);
    if (last.type != kEndOfState)
        return fail(OpenStatus::Refused, name);
    return reader.left() == 0 || fail(OpenStatus::Damaged, name);
}

bool Replay::read_journal(uint64_t number) noexcept
{
    const FileName name = name_of(FileKind::Journal, number);
    Fd             file;
    uint64_t       size = 0;
    if (!open_reader(disk_, directory_, name, file, size))
        return fail(errno == ENOENT ? OpenStatus::Missing : OpenStatus::Failed, name);
    RecordReader reader(disk_, std::move(file), size);
    if (const ReadStatus header = reader.read_header(FileKind::Journal); header != ReadStatus::Record)
        return fail_to_read(header, name);
    Record           last;
    const ReadStatus status = visit_records(reader, last);
    if (status == ReadStatus::Record)
        return fail(last.type == kEndOfState ? OpenStatus::Damaged : OpenStatus::Refused, name);
    const bool may_be_cut = number == found_.last_journal; // the others were whole before their successor was made
    if (status == ReadStatus::Torn && may_be_cut) {
        result_.dropped_bytes = reader.left();
        result_.file          = name;
    } else if (status != ReadStatus::End) {
        return fail_to_read(status, name);
    }
    found_.last_size = reader.offset();
    found_.journals_size += reader.offset() - kFileHeader;
    return true;
}

bool Replay::run() noexcept
{
    if (!list_files())
        return false;
    if (found_.state == 0)
        return see_that_it_is_new();
    if (!read_state())
        return false;
    for (uint64_t number = found_.state; number <= std::max(found_.state, found_.last_journal); ++number)
        if (!read_journal(number))
            return false;
    return true;
}

bool Replay::cut_last_journal() noexcept
{
    const FileName name = name_of(FileKind::Journal, found_.last_journal);
    const Fd       file = disk_.open(directory_, name.text, O_RDWR);
    if (file && disk_.truncate(file.get(), found_.last_size) && disk_.sync(file.get()))
        return true;
    return fail(OpenStatus::Failed, name);
}

bool Replay::make_file(FileKind kind) noexcept
{
    const FileName name      = name_of(kind, kFirst);
    const FileName temporary = temporary_name_of(kind, kFirst);
    GrowingFile    file      = GrowingFile::create(disk_, directory_, temporary, kind);
    const bool     whole     = file && (kind == FileKind::Journal || file.write(disk_, end_of_state()));
    if (!whole || !file.sync(disk_) || !disk_.rename(directory_, temporary.text, name.text) ||
        !disk_.sync_directory(directory_))
        return fail(OpenStatus::Failed, name);
    found_.state_size = file.size();
    return true;
}

bool Replay::make_first_pair() noexcept
{
    const Fd parent = disk_.open(directory_, "..", O_RDONLY | O_DIRECTORY);
    if (parent && !disk_.sync_directory(parent.get()))
        return fail(OpenStatus::Failed, {".."});
    found_ = {.state = kFirst, .last_journal = kFirst, .last_size = kFileHeader};
    return make_file(FileKind::Journal) && make_file(FileKind::State);
}

// Those that stay count as what they are at the next start, too.
void Replay::remove_leftovers() const noexcept
{
    for_each_file(disk_, directory_, [this](const char *name, const NamedFile &file) {
        if (file.temporary || file.number < found_.state)
            disk_.remove(directory_, name);
    });
}

bool Replay::repair() noexcept
{
    if (found_.state == 0)
        return make_first_pair();
    if (result_.dropped_bytes > 0 && !cut_last_journal())
        return false;
    remove_leftovers();
    return true;
}

} // namespace tarn::standard
