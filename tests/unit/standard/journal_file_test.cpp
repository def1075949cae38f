// The files of the journal: names, checksums, records.
#include "journal_support.h"
#include "standard/journal/crc32c.h"
#include "support/faults.h"

#include <gtest/gtest.h>
#include <numeric>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

std::vector<uint8_t> filled(size_t count, uint8_t value)
{
    return std::vector<uint8_t>(count, value);
}

std::string text_of(const Record &record)
{
    return {record.bytes.begin(), record.bytes.end()};
}

std::string sealed(const std::vector<std::string> &records)
{
    GrowArray<uint8_t> bytes;
    for (const std::string &record : records)
        EXPECT_TRUE(put_record(bytes, 7, {bytes_of(record)}));
    seal_records({bytes.data(), bytes.size()});
    const FileHeader header = header_of(FileKind::Journal);
    return std::string(header.begin(), header.end()) + std::string(bytes.begin(), bytes.end());
}

RecordReader reader_of(Disk &disk, const std::string &content)
{
    write_file("file", content);
    return {disk, Fd(open("file", O_RDONLY | O_CLOEXEC)), content.size()};
}

} // namespace

TEST(crc32c, is_the_one_of_the_standard)
{
    std::vector<uint8_t> rising(32);
    std::iota(rising.begin(), rising.end(), 0);
    EXPECT_EQ(crc32c({}), 0u);
    EXPECT_EQ(crc32c(bytes_of("123456789")), 0xE3069283u);
    EXPECT_EQ(crc32c(filled(32, 0x00)), 0x8A9136AAu);
    EXPECT_EQ(crc32c(filled(32, 0xFF)), 0x62A8AB43u);
    EXPECT_EQ(crc32c(rising), 0x46DD794Eu);
    EXPECT_EQ(crc32c(std::span(rising).subspan(13), crc32c(std::span(rising).first(13))), 0x46DD794Eu);
}

TEST(journal_file, names_are_read_as_they_are_written)
{
    for (const FileKind kind : {FileKind::State, FileKind::Journal})
        for (const uint64_t number : {uint64_t{1}, uint64_t{47}, uint64_t{1} << 62}) {
            NamedFile file;
            ASSERT_TRUE(parse_name(name_of(kind, number).text, file));
            EXPECT_TRUE(file.kind == kind && file.number == number && !file.temporary);
            ASSERT_TRUE(parse_name(temporary_name_of(kind, number).text, file));
            EXPECT_TRUE(file.kind == kind && file.number == number && file.temporary);
        }
    EXPECT_STREQ(name_of(FileKind::State, 3).text, "state-3");
    EXPECT_STREQ(temporary_name_of(FileKind::Journal, 4).text, "journal-4.tmp");
}

TEST(journal_file, other_names_are_none_of_ours)
{
    for (const char *const name :
         {"", ".", "state", "state-", "state-.tmp", "state-0", "state-01", "state-1a", "state--1", "journal-+1",
          "State-1", "journal-18446744073709551615", "journal-99999999999999999999", "state-1.tmp.tmp", "xstate-1"}) {
        NamedFile file;
        EXPECT_FALSE(parse_name(name, file)) << name;
    }
}

TEST(journal_file, records_are_read_back_whatever_their_size)
{
    TestDisk disk;
    for (const size_t at_once : {SIZE_MAX, size_t{1000}}) {
        disk.most_at_once                      = at_once;
        const std::vector<std::string> records = {
            "", "a", std::string(300'000, 'b'), std::string(200'000, 'c'), std::string(200'000, 'd'), "e"};
        RecordReader reader = reader_of(disk, sealed(records));
        ASSERT_EQ(reader.read_header(FileKind::Journal), ReadStatus::Record);
        Record record;
        for (const std::string &expected : records) {
            ASSERT_EQ(reader.next(record), ReadStatus::Record);
            EXPECT_EQ(record.type, 7);
            EXPECT_EQ(text_of(record), expected);
        }
        EXPECT_EQ(reader.next(record), ReadStatus::End);
        EXPECT_EQ(reader.left(), 0u);
    }
}

TEST(journal_file, a_record_that_is_cut_or_changed_is_torn)
{
    TestDisk          disk;
    const std::string whole = sealed({"first", "second"});
    const size_t      first = kFileHeader + kRecordHeader + 5;
    for (size_t at = first; at < whole.size(); ++at)
        for (const bool cut : {true, false}) {
            std::string content = cut ? whole.substr(0, at) : whole;
            if (!cut)
                content[at] = static_cast<char>(content[at] ^ 0x10);
            RecordReader reader = reader_of(disk, content);
            Record       record;
            ASSERT_EQ(reader.read_header(FileKind::Journal), ReadStatus::Record);
            ASSERT_EQ(reader.next(record), ReadStatus::Record);
            const bool nothing_follows = cut && at == first;
            EXPECT_EQ(reader.next(record), nothing_follows ? ReadStatus::End : ReadStatus::Torn) << at << cut;
            EXPECT_EQ(reader.offset(), first);
        }
}

TEST(journal_file, zeros_are_no_record)
{
    TestDisk     disk;
    RecordReader reader = reader_of(disk, sealed({}) + std::string(100, '\0'));
    Record       record;
    ASSERT_EQ(reader.read_header(FileKind::Journal), ReadStatus::Record);
    EXPECT_EQ(reader.next(record), ReadStatus::Torn);
}

TEST(journal_file, a_header_says_whose_file_it_is)
{
    TestDisk          disk;
    const std::string header = sealed({});
    EXPECT_EQ(reader_of(disk, header).read_header(FileKind::State), ReadStatus::NotOurs);
    EXPECT_EQ(reader_of(disk, "").read_header(FileKind::Journal), ReadStatus::NotOurs);
    EXPECT_EQ(reader_of(disk, header.substr(0, 11)).read_header(FileKind::Journal), ReadStatus::NotOurs);
    EXPECT_EQ(reader_of(disk, header.substr(0, 8) + std::string(4, '\x02')).read_header(FileKind::Journal),
              ReadStatus::OtherVersion);
}

TEST(journal_file, reading_says_what_fails)
{
    TestDisk     disk;
    Record       record;
    RecordReader shorter(disk, Fd(open("/dev/null", O_RDONLY | O_CLOEXEC)), 100);
    EXPECT_EQ(shorter.read_header(FileKind::Journal), ReadStatus::Failed);
    EXPECT_EQ(errno, EIO);

    disk.before         = [](DiskCall) { return EIO; };
    RecordReader broken = reader_of(disk, sealed({}));
    EXPECT_EQ(broken.read_header(FileKind::Journal), ReadStatus::Failed);
    EXPECT_EQ(errno, EIO);

    int interrupted    = 1;
    disk.before        = [&](DiskCall) { return interrupted-- > 0 ? EINTR : 0; };
    RecordReader large = reader_of(disk, sealed({std::string(300'000, 'x')}));
    EXPECT_EQ(large.read_header(FileKind::Journal), ReadStatus::Record);
    const Fail fail(Call::Allocate);
    EXPECT_EQ(large.next(record), ReadStatus::NoMemory);
}

TEST(journal_file, a_record_needs_memory)
{
    GrowArray<uint8_t> bytes;
    const std::string  large(100'000, 'x');
    const Fail         fail(Call::Allocate);
    EXPECT_FALSE(put_record(bytes, 1, {bytes_of(large)}));
    EXPECT_TRUE(bytes.empty());
}

TEST(journal_file, what_failed_to_be_written_is_written_in_the_same_place)
{
    TestDisk    disk;
    const Fd    here(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    GrowingFile file = GrowingFile::create(disk, here.get(), {"grown"}, FileKind::Journal);
    ASSERT_TRUE(file);
    disk.most_at_once = 2;
    int writes        = 0;
    disk.before       = [&](DiskCall call) { return call == DiskCall::Write && ++writes == 3 ? ENOSPC : 0; };
    EXPECT_FALSE(file.commit(disk, bytes_of("0123456789")));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(file.size(), kFileHeader);
    EXPECT_EQ(content_of("grown").substr(kFileHeader), "0123");
    disk.before = [&](DiskCall call) { return call == DiskCall::Write && ++writes % 2 ? EINTR : 0; };
    EXPECT_TRUE(file.commit(disk, bytes_of("0123456789")));
    EXPECT_EQ(content_of("grown").substr(kFileHeader), "0123456789");
    disk.most_at_once = 0; // a full disk may say so by taking nothing
    EXPECT_FALSE(file.write(disk, bytes_of("x")));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(GrowingFile::create(disk, here.get(), {"other"}, FileKind::Journal));
}
