// What a directory keeps is read back, or the reason why not is given and nothing there changes.
#include "journal_support.h"
#include "support/faults.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr const char *kDirectory = "data/standard";

using Texts = std::vector<std::string>;

struct Reading {
    Opened opened;
    Texts  records;
};

Reading read(size_t most_records = SIZE_MAX)
{
    Journal  journal;
    Replayed replayed;
    replayed.most       = most_records;
    const Opened opened = journal.open(kDirectory, replayed);
    return {opened, replayed.records};
}

void append_all(const Texts &texts)
{
    Journal  journal;
    Replayed replayed;
    ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
    for (const std::string &text : texts)
        ASSERT_EQ(journal.append(1, {bytes_of(text)}).status, AppendStatus::Ok);
}

// A checkpoint of these, and what was appended behind it. Not finished: what was before, in the journal before.
void write_checkpoint(const Texts &state, const Texts &behind, bool finished = true)
{
    Journal  journal;
    Replayed replayed;
    ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
    ASSERT_TRUE(journal.begin_checkpoint());
    for (const std::string &text : state)
        ASSERT_EQ(journal.append_to_checkpoint(1, {bytes_of(text)}), AppendStatus::Ok);
    for (const std::string &text : behind)
        ASSERT_EQ(journal.append(1, {bytes_of(text)}).status, AppendStatus::Ok);
    if (finished)
        journal.finish_checkpoint();
}

// The directory is not opened, for this reason, and stays as it is.
void expect_refused(OpenStatus status, const std::string &file, size_t most_records = SIZE_MAX)
{
    const Files   before  = files_in(kDirectory);
    const Reading reading = read(most_records);
    EXPECT_EQ(reading.opened.status, status);
    EXPECT_STREQ(reading.opened.file.text, file.c_str());
    EXPECT_EQ(files_in(kDirectory), before);
}

fs::path path_of(const std::string &name)
{
    return fs::path(kDirectory) / name;
}

void change_byte(const std::string &name, size_t at)
{
    std::string content = content_of(path_of(name));
    content.at(at)      = static_cast<char>(content.at(at) ^ 1);
    write_file(path_of(name), content);
}

} // namespace

TEST(journal_open, a_torn_end_is_dropped_and_cut)
{
    append_all({"first", "second", "third"});
    const Files  whole = files_in(kDirectory);
    const size_t size  = whole.at("journal-1").size();
    const size_t first = kFileHeader + kRecordHeader + 5, second = first + kRecordHeader + 6;
    for (size_t kept = first; kept < size; ++kept) {
        Files cut = whole;
        cut["journal-1"].resize(kept);
        write_files(kDirectory, cut);
        append_all({"later"}); // reads, cuts, goes on
        const Texts   expected = kept < second ? Texts{"1:first", "1:later"} : Texts{"1:first", "1:second", "1:later"};
        const Reading reading  = read();
        EXPECT_EQ(reading.opened.dropped_bytes, 0u);
        EXPECT_EQ(reading.records, expected) << kept;
    }
}

TEST(journal_open, a_changed_byte_ends_the_replay)
{
    append_all({"first", "second", "third"});
    const Files  whole = files_in(kDirectory);
    const size_t size  = whole.at("journal-1").size();
    const size_t first = kFileHeader + kRecordHeader + 5, second = first + kRecordHeader + 6;
    for (size_t at = first; at < size; ++at) {
        write_files(kDirectory, whole);
        change_byte("journal-1", at);
        const Reading reading = read();
        EXPECT_EQ(reading.opened.status, OpenStatus::Ok);
        EXPECT_EQ(reading.records, at < second ? Texts{"1:first"} : (Texts{"1:first", "1:second"})) << at;
        EXPECT_EQ(reading.opened.dropped_bytes, size - (at < second ? first : second));
        EXPECT_STREQ(reading.opened.file.text, "journal-1");
    }
}

TEST(journal_open, a_line_tells_of_what_is_dropped)
{
    append_all({"first"});
    write_file(path_of("journal-1"), content_of(path_of("journal-1")) + "torn");
    LogCapture log(2);
    read();
    EXPECT_EQ(log.take(),
              std::vector{warn("[journal] data/standard/journal-1 has no whole record at its end: 4 bytes dropped")});
    read();
    EXPECT_TRUE(log.take().empty());
}

TEST(journal_open, another_program_s_file_is_left_alone)
{
    append_all({"a"});
    const Files files = files_in(kDirectory);
    for (const char *const name : {"state-1", "journal-1"})
        for (const std::string &content :
             {std::string(), std::string("short"), std::string("a file of another kind")}) {
            write_files(kDirectory, files);
            write_file(path_of(name), content);
            expect_refused(OpenStatus::NotOurs, name);
        }
    LogCapture log(2);
    read();
    EXPECT_EQ(log.take(), std::vector{error("[journal] data/standard cannot be opened: journal-1: "
                                            "not a file of this broker")});
}

TEST(journal_open, another_version_is_left_alone)
{
    append_all({"a"});
    const Files files = files_in(kDirectory);
    for (const char *const name : {"state-1", "journal-1"}) {
        write_files(kDirectory, files);
        change_byte(name, 9);
        expect_refused(OpenStatus::OtherVersion, name);
    }
    LogCapture log(2);
    read();
    EXPECT_EQ(log.take(),
              std::vector{error("[journal] data/standard cannot be opened: journal-1: of another version")});
}

TEST(journal_open, other_names_are_nobody_s_business)
{
    append_all({"a"});
    write_file(path_of("README"), "hello");
    write_file(path_of("state-1.bak"), "hello");
    EXPECT_EQ(read().records, Texts{"1:a"});
    EXPECT_EQ(names_in(kDirectory), (Texts{"README", "journal-1", "state-1", "state-1.bak"}));
}

TEST(journal_open, a_damaged_checkpoint_is_an_error)
{
    append_all({"a"});
    write_checkpoint({"first", "second"}, {"behind"});
    const Files files = files_in(kDirectory);
    const auto &state = files.at("state-2");
    for (size_t at = kFileHeader; at < state.size(); ++at) {
        write_files(kDirectory, files);
        change_byte("state-2", at);
        expect_refused(OpenStatus::Damaged, "state-2");
        write_file(path_of("state-2"), state.substr(0, at)); // without its end
        expect_refused(OpenStatus::Damaged, "state-2");
    }
    write_file(path_of("state-2"), state + "x");
    expect_refused(OpenStatus::Damaged, "state-2");
    LogCapture log(2);
    read();
    EXPECT_EQ(log.take(), std::vector{error("[journal] data/standard cannot be opened: state-2: damaged")});
}

TEST(journal_open, only_the_last_journal_may_end_torn)
{
    append_all({"a", "b"});
    write_checkpoint({}, {"c"}, false);
    ASSERT_EQ(names_in(kDirectory), (Texts{"journal-1", "journal-2", "state-1"}));
    const Files files = files_in(kDirectory);
    change_byte("journal-1", files.at("journal-1").size() - 1);
    expect_refused(OpenStatus::Damaged, "journal-1");
    write_files(kDirectory, files);
    change_byte("journal-2", files.at("journal-2").size() - 1);
    EXPECT_EQ(read().records, (Texts{"1:a", "1:b"}));
}

TEST(journal_open, a_journal_has_no_end_of_a_checkpoint)
{
    append_all({"a"});
    write_file(path_of("journal-1"), content_of(path_of("journal-1")) + content_of(path_of("state-1")).substr(12));
    expect_refused(OpenStatus::Damaged, "journal-1");
}

TEST(journal_open, a_missing_file_is_an_error)
{
    append_all({"a"});
    write_checkpoint({}, {"b"}, false);
    write_checkpoint({}, {"c"}, false);
    const Files files = files_in(kDirectory);
    ASSERT_EQ(names_in(kDirectory), (Texts{"journal-1", "journal-2", "journal-3", "state-1"}));
    for (const char *const name : {"journal-1", "journal-2"}) {
        write_files(kDirectory, files);
        fs::remove(path_of(name));
        expect_refused(OpenStatus::Missing, name);
    }
    write_files(kDirectory, files);
    fs::remove(path_of("state-1"));
    expect_refused(OpenStatus::Missing, "state-3");
    fs::remove(path_of("journal-2"));
    fs::remove(path_of("journal-3")); // the first has records
    expect_refused(OpenStatus::Missing, "state-1");
    LogCapture log(2);
    read();
    EXPECT_EQ(log.take(), std::vector{error("[journal] data/standard cannot be opened: state-1: missing")});
}

TEST(journal_open, a_first_start_that_was_cut_short_begins_again)
{
    append_all({});
    fs::remove(path_of("state-1"));
    write_file(path_of("state-1.tmp"), "half");
    append_all({"a"});
    EXPECT_EQ(read().records, Texts{"1:a"});
    EXPECT_EQ(names_in(kDirectory), (Texts{"journal-1", "state-1"}));
}

TEST(journal_open, a_first_journal_that_is_damaged_is_not_replaced)
{
    append_all({});
    fs::remove(path_of("state-1"));
    change_byte("journal-1", 0);
    expect_refused(OpenStatus::NotOurs, "journal-1");
}

TEST(journal_open, leftovers_are_removed)
{
    append_all({"a"});
    const Files first = files_in(kDirectory);
    write_checkpoint({"state"}, {"b"});
    for (const auto &[name, content] : first)
        write_file(path_of(name), content);
    write_file(path_of("state-3.tmp"), "half");
    write_file(path_of("journal-3.tmp"), "half");
    const Reading reading = read();
    EXPECT_EQ(reading.records.front(), "1:state");
    EXPECT_EQ(reading.records.back(), "1:b");
    EXPECT_EQ(names_in(kDirectory), (Texts{"journal-2", "state-2"}));
}

TEST(journal_open, a_visitor_may_refuse)
{
    append_all({"a", "b"});
    write_checkpoint({"s", "t"}, {"c"});
    write_file(path_of("journal-2"), content_of(path_of("journal-2")) + "torn");
    expect_refused(OpenStatus::Refused, "state-2", 1);
    expect_refused(OpenStatus::Refused, "journal-2", 2);
    LogCapture log(2);
    read(1);
    EXPECT_EQ(log.take(), std::vector{error("[journal] data/standard cannot be opened: state-2: no memory")});
}

TEST(journal_open, memory_may_be_short)
{
    append_all({"a"});
    const Files before = files_in(kDirectory);
    int         failed = 0;
    for (int nth = 1;; ++nth) {
        Journal      journal;
        Replayed     replayed;
        const Fail   fail(Call::Allocate, nth);
        const Opened opened = journal.open(kDirectory, replayed);
        if (fail.failed() == 0)
            break;
        failed += opened.status == OpenStatus::NoMemory;
        EXPECT_EQ(files_in(kDirectory), before);
    }
    EXPECT_GE(failed, 2); // for each file
    EXPECT_EQ(read().records, Texts{"1:a"});
}

TEST(journal_open, a_directory_has_one_user)
{
    Journal  first, second;
    Replayed replayed;
    ASSERT_EQ(first.open(kDirectory, replayed).status, OpenStatus::Ok);
    LogCapture log(2);
    EXPECT_EQ(second.open(kDirectory, replayed).status, OpenStatus::InUse);
    EXPECT_EQ(first.open(kDirectory, replayed).status, OpenStatus::InUse);
    EXPECT_EQ(log.take(), std::vector(2, error("[journal] data/standard cannot be opened: data/standard: in use")));
    EXPECT_EQ(first.append(1, {bytes_of("still open")}).status, AppendStatus::Ok);
    first.close();
    EXPECT_EQ(second.open(kDirectory, replayed).status, OpenStatus::Ok);
    EXPECT_EQ(replayed.records, Texts{"1:still open"});
}

TEST(journal_open, a_place_without_a_directory_is_refused)
{
    write_file("file", "");
    Journal    journal;
    Replayed   replayed;
    LogCapture log(2);
    EXPECT_EQ(journal.open("file/standard", replayed).error, ENOTDIR);
    EXPECT_EQ(journal.open("file", replayed).error, ENOTDIR);
    EXPECT_EQ(journal.open("", replayed).error, ENOENT);
    EXPECT_EQ(journal.open(std::string(5000, 'x').c_str(), replayed).error, ENAMETOOLONG);
    EXPECT_EQ(log.take().at(1), error("[journal] file cannot be opened: file: Not a directory"));
}

TEST(journal_open, without_a_thread_it_is_closed)
{
    Replayed replayed;
    Journal  journal;
    {
        const Fail fail(Call::ThreadCreate, 1, EAGAIN);
        EXPECT_EQ(journal.open(kDirectory, replayed).error, EAGAIN);
    }
    EXPECT_EQ(journal.append(1, {}).status, AppendStatus::Closed);
    EXPECT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
}
