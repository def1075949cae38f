// journal_file.h - the files that the journal and its checkpoints are made of.
//
//     state-<n>    a checkpoint: all there was when journal-<n> began, whole or not there
//     journal-<n>  what changed since
//
// Both begin with eight letters that say which they are, and a version. Records follow, numbers little endian:
//
//     length    4  of the bytes
//     checksum  4  CRC-32C of length, type and bytes
//     type      1
//     bytes
//
// A checkpoint ends with a record of type kEndOfState, so that a cut one is known. A file of either kind is made under
// its name with ".tmp" behind it and renamed when its first, or its last, bytes are on the disk.
#ifndef TARN_STANDARD_JOURNAL_FILE_H
#define TARN_STANDARD_JOURNAL_FILE_H

#include "../../base/memory.h"
#include "disk.h"

#include <array>
#include <initializer_list>

namespace tarn::standard {

constexpr size_t  kFileHeader   = 12;
constexpr size_t  kRecordHeader = 9;
constexpr uint8_t kEndOfState   = 0;

enum class FileKind : uint8_t { State, Journal };

struct FileName {
    char text[40];
};
FileName name_of(FileKind kind, uint64_t number) noexcept;
FileName temporary_name_of(FileKind kind, uint64_t number) noexcept;

// What a name of the directory stands for.
struct NamedFile {
    FileKind kind;
    uint64_t number;
    bool     temporary;
};
bool parse_name(const char *text, NamedFile &file) noexcept; // false: none of ours

using FileHeader = std::array<uint8_t, kFileHeader>;
FileHeader header_of(FileKind kind) noexcept;

using RecordParts = std::initializer_list<std::span<const uint8_t>>;
size_t record_size(const RecordParts &parts) noexcept; // in the file
// Appends a record without its checksum; false without memory.
[[nodiscard]] bool                 put_record(GrowArray<uint8_t> &to, uint8_t type, const RecordParts &parts) noexcept;
std::array<uint8_t, kRecordHeader> end_of_state() noexcept; // the whole record
// Writes the checksums of whole records that stand one behind the other.
void seal_records(std::span<uint8_t> records) noexcept;

// A file that grows at its end.
class GrowingFile {
public:
    GrowingFile() = default;
    GrowingFile(Fd file, uint64_t size) noexcept : file_(std::move(file)), size_(size) {}

    // A new one under `name`, its header written and not synced; not open when that fails.
    static GrowingFile create(Disk &disk, int directory, FileName name, FileKind kind) noexcept;

    explicit operator bool() const noexcept { return static_cast<bool>(file_); }
    uint64_t size() const noexcept { return size_; }

    // False: it ends where it ended, and the disk may have part of it.
    [[nodiscard]] bool write(Disk &disk, std::span<const uint8_t> bytes) noexcept;
    [[nodiscard]] bool sync(Disk &disk) const noexcept { return disk.sync(file_.get()); }
    // Both. After a failure all bytes are to be written again: a sync that failed may have dropped those that the
    // system had, and the next one would not say so.
    [[nodiscard]] bool commit(Disk &disk, std::span<const uint8_t> bytes) noexcept;

private:
    Fd       file_;
    uint64_t size_ = 0;
};

struct Record {
    uint8_t                  type = 0;
    std::span<const uint8_t> bytes; // until the next is read
};

enum class ReadStatus : uint8_t { Record, End, Torn, NotOurs, OtherVersion, NoMemory, Failed };

// Reads the records of a file from first to last.
class RecordReader {
public:
    RecordReader(Disk &disk, Fd file, uint64_t size) noexcept : disk_(disk), file_(std::move(file)), size_(size) {}

    // To be called first: Record, or what is wrong.
    ReadStatus read_header(FileKind kind) noexcept;
    // Torn: from here on there is no whole record.
    ReadStatus next(Record &record) noexcept;
    uint64_t   offset() const noexcept { return offset_; } // behind what was read whole
    uint64_t   left() const noexcept { return size_ - offset_; }

private:
    ReadStatus     need(size_t count) noexcept;
    ReadStatus     fill(size_t count) noexcept;
    const uint8_t *at() const noexcept { return window_.get() + begin_; }
    void           skip(size_t count) noexcept;

    Disk          &disk_;
    Fd             file_;
    uint64_t       size_;
    uint64_t       offset_ = 0; // of the file, where begin_ stands
    owned<uint8_t> window_;     // what of the file is in memory: [begin_, end_)
    size_t         room_  = 0;
    size_t         begin_ = 0;
    size_t         end_   = 0;
};

} // namespace tarn::standard

#endif
