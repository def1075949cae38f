// The directory of kept state that cannot be listed, or not be synced.
#include "journal_support.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr const char *kDirectory = "data/standard";

int g_entries_left = -1; // readdir() fails when so many were read; -1: never

} // namespace

// In place of the C library's, for this whole program.
extern "C" dirent *readdir(DIR *entries)
{
    static auto *const real = reinterpret_cast<dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir"));
    if (g_entries_left == 0) {
        errno = EIO;
        return nullptr;
    }
    if (g_entries_left > 0)
        --g_entries_left;
    return real(entries);
}

TEST(journal_directory, files_that_cannot_be_listed_are_not_taken_for_missing)
{
    {
        Journal  journal;
        Replayed replayed;
        ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
        ASSERT_TRUE(journal.begin_checkpoint()); // numbers that a new directory does not have
        journal.finish_checkpoint();
        ASSERT_EQ(journal.append(1, {bytes_of("kept")}).status, AppendStatus::Ok);
    }
    const Files before = files_in(kDirectory);
    for (int entries = 0; entries <= 2; ++entries) {
        Journal  journal;
        Replayed replayed;
        g_entries_left      = entries;
        const Opened opened = journal.open(kDirectory, replayed);
        g_entries_left      = -1;
        EXPECT_EQ(opened.status, OpenStatus::Failed) << entries;
        EXPECT_EQ(opened.error, EIO);
        EXPECT_STREQ(opened.file.text, "");
        EXPECT_EQ(files_in(kDirectory), before) << entries;
    }
    Journal  journal;
    Replayed replayed;
    EXPECT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
    EXPECT_EQ(replayed.records.size(), 1u);
}

TEST(journal_directory, bytes_behind_the_end_of_a_checkpoint_are_an_error)
{
    {
        Journal  journal;
        Replayed replayed;
        ASSERT_EQ(journal.open(kDirectory, replayed).status, OpenStatus::Ok);
    }
    const fs::path state = fs::path(kDirectory) / "state-1";
    write_file(state, content_of(state) + "x");
    Journal      journal;
    Replayed     replayed;
    const Opened opened = journal.open(kDirectory, replayed);
    EXPECT_EQ(opened.status, OpenStatus::Damaged);
    EXPECT_STREQ(opened.file.text, "state-1");
}

TEST(system_disk, a_directory_that_its_file_system_never_syncs_is_as_good_as_synced)
{
    const Fd proc = system_disk().open(AT_FDCWD, "/proc", O_RDONLY | O_DIRECTORY);
    ASSERT_TRUE(proc);
    ASSERT_EQ(fsync(proc.get()), -1);
    ASSERT_EQ(errno, EINVAL);
    EXPECT_TRUE(system_disk().sync_directory(proc.get()));
    EXPECT_FALSE(system_disk().sync_directory(-1));
}
