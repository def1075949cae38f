// journal_file.cpp - see journal_file.h.
#include "journal_file.h"

#include "crc32c.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <string_view>

namespace tarn::standard {
namespace {

constexpr uint32_t         kVersion       = 1;
constexpr size_t           kMagic         = 8;
constexpr std::string_view kMagics[]      = {"tarnstat", "tarnjrnl"}; // by FileKind
constexpr std::string_view kFirstNames[]  = {"state-", "journal-"};   // likewise
constexpr std::string_view kTemporary     = ".tmp";
constexpr size_t           kChecksumAt    = 4; // of a record
constexpr size_t           kTypeAt        = 8;
constexpr size_t           kWindow        = size_t{256} << 10;
constexpr uint64_t         kLargestNumber = UINT64_MAX / 2;

void put_u32(uint8_t *to, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<uint8_t>(value >> 8 * i);
}

uint32_t get_u32(const uint8_t *from)
{
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(from[i]) << 8 * i;
    return value;
}

size_t total_of(const RecordParts &parts)
{
    size_t total = 0;
    for (const auto &part : parts)
        total += part.size();
    return total;
}

uint32_t checksum_of(const uint8_t *record, size_t length)
{
    return crc32c({record + kTypeAt, 1 + length}, crc32c({record, kChecksumAt}));
}

FileName print_name(FileKind kind, uint64_t number, std::string_view ending)
{
    FileName name;
    snprintf(name.text, sizeof name.text, "%s%llu%s", kFirstNames[static_cast<size_t>(kind)].data(),
             static_cast<unsigned long long>(number), ending.data());
    return name;
}

bool parse_number(std::string_view text, uint64_t &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && text.front() != '0' && number < kLargestNumber;
}

} // namespace

FileName name_of(FileKind kind, uint64_t number) noexcept
{
    return print_name(kind, number, "");
}

FileName temporary_name_of(FileKind kind, uint64_t number) noexcept
{
    return print_name(kind, number, kTemporary);
}

bool parse_name(const char *text, NamedFile &file) noexcept
{
    std::string_view rest = text;
    file.kind             = rest.starts_with(kFirstNames[0]) ? FileKind::State : FileKind::Journal;
    const auto first      = kFirstNames[static_cast<size_t>(file.kind)];
    if (!rest.starts_with(first))
        return false;
    rest.remove_prefix(first.size());
    file.temporary = rest.ends_with(kTemporary);
    if (file.temporary)
        rest.remove_suffix(kTemporary.size());
    return parse_number(rest, file.number);
}

FileHeader header_of(FileKind kind) noexcept
{
    FileHeader header;
    std::ranges::copy(kMagics[static_cast<size_t>(kind)], header.begin());
    put_u32(header.data() + kMagic, kVersion);
    return header;
}

size_t record_size(const RecordParts &parts) noexcept
{
    return kRecordHeader + total_of(parts);
}

bool put_record(GrowArray<uint8_t> &to, uint8_t type, const RecordParts &parts) noexcept
{
    if (!to.reserve(to.size() + record_size(parts)))
        return false;
    uint8_t header[kRecordHeader] = {};
    put_u32(header, static_cast<uint32_t>(total_of(parts)));
    header[kTypeAt] = type;
    bool fits       = to.append(header, sizeof header);
    for (const auto &part : parts)
        fits = to.append(part.data(), part.size()) && fits;
    return fits; // there is room for all
}

std::array<uint8_t, kRecordHeader> end_of_state() noexcept
{
    std::array<uint8_t, kRecordHeader> record{};
    record[kTypeAt] = kEndOfState;
    seal_records(record);
    return record;
}

void seal_records(std::span<uint8_t> records) noexcept
{
    while (!records.empty()) {
        const size_t length = get_u32(records.data());
        put_u32(records.data() + kChecksumAt, checksum_of(records.data(), length));
        records = records.subspan(kRecordHeader + length);
    }
}

GrowingFile GrowingFile::create(Disk &disk, int directory, FileName name, FileKind kind) noexcept
{
    GrowingFile file(disk.open(directory, name.text, O_RDWR | O_CREAT | O_TRUNC), 0);
    if (file && !file.write(disk, header_of(kind)))
        file.file_.reset();
    return file;
}

bool GrowingFile::write(Disk &disk, std::span<const uint8_t> bytes) noexcept
{
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = disk.write(file_.get(), bytes.subspan(written), size_ + written);
        if (count == 0)
            errno = ENOSPC;
        if (count == 0 || (count < 0 && errno != EINTR))
            return false;
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
    size_ += written;
    return true;
}

bool GrowingFile::commit(Disk &disk, std::span<const uint8_t> bytes) noexcept
{
    const uint64_t before = size_;
    if (write(disk, bytes) && sync(disk))
        return true;
    size_ = before;
    return false;
}

ReadStatus RecordReader::read_header(FileKind kind) noexcept
{
    if (const ReadStatus got = need(kFileHeader); got != ReadStatus::Record)
        return got == ReadStatus::Torn || got == ReadStatus::End ? ReadStatus::NotOurs : got;
    const FileHeader wanted = header_of(kind);
    if (memcmp(at(), wanted.data(), kMagic) != 0)
        return ReadStatus::NotOurs;
    if (get_u32(at() + kMagic) != kVersion)
        return ReadStatus::OtherVersion;
    skip(kFileHeader);
    return ReadStatus::Record;
}

ReadStatus RecordReader::next(Record &record) noexcept
{
    if (const ReadStatus got = need(kRecordHeader); got != ReadStatus::Record)
        return got;
    const size_t length = get_u32(at());
    if (const ReadStatus got = need(kRecordHeader + length); got != ReadStatus::Record)
        return got;
    if (get_u32(at() + kChecksumAt) != checksum_of(at(), length))
        return ReadStatus::Torn;
    record = {.type = at()[kTypeAt], .bytes = {at() + kRecordHeader, length}};
    skip(kRecordHeader + length);
    return ReadStatus::Record;
}

// Record when the next `count` bytes of the file are in memory.
ReadStatus RecordReader::need(size_t count) noexcept
{
    if (left() == 0)
        return ReadStatus::End;
    if (count > left())
        return ReadStatus::Torn;
    return end_ - begin_ >= count ? ReadStatus::Record : fill(count);
}

ReadStatus RecordReader::fill(size_t count) noexcept
{
    const size_t kept = end_ - begin_;
    if (count > room_) {
        const size_t   room  = std::max(count, kWindow);
        owned<uint8_t> wider = allocate<uint8_t>(room);
        if (!wider)
            return ReadStatus::NoMemory;
        if (kept > 0)
            memcpy(wider.get(), at(), kept);
        window_ = std::move(wider);
        room_   = room;
    } else {
        memmove(window_.get(), at(), kept);
    }
    begin_ = 0;
    end_   = kept;
    while (end_ < count) {
        const ssize_t got = disk_.read(file_.get(), {window_.get() + end_, room_ - end_}, offset_ + end_);
        if (got == 0)
            errno = EIO; // shorter than it was when it was opened
        if (got == 0 || (got < 0 && errno != EINTR))
            return ReadStatus::Failed;
        end_ += got > 0 ? static_cast<size_t>(got) : 0;
    }
    return ReadStatus::Record;
}

void RecordReader::skip(size_t count) noexcept
{
    begin_ += count;
    offset_ += count;
}

} // namespace tarn::standard
