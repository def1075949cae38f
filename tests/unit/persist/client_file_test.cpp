// What memory knows of the files of clients, so many that places of the table hold more than one.
#include "persist/client_file.h"
#include "persist/persist.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

using namespace tarn;
using namespace tarn::persist;

namespace {

constexpr int kClients = 3000;

std::string id_of(int number)
{
    return "dev" + std::to_string(number);
}

} // namespace

TEST(client_file, of_many_the_saved_ones_are_dropped)
{
    ScopedLock lock(g_save_mutex);
    for (int number = 0; number < kClients; ++number)
        for (const Kind kind : {Kind::Messages, Kind::Subscriptions}) {
            ClientFile *const file = find_or_make(kind, id_of(number).c_str());
            ASSERT_TRUE(file);
            EXPECT_EQ(find_or_make(kind, id_of(number).c_str()), file);
            if (number % 3 == 0)
                count_change(*file);
        }
    EXPECT_EQ(count_files(), 2 * kClients);
    drop_if_saved(Kind::Messages, "dev0");
    EXPECT_EQ(count_files(), 2 * kClients);
    drop_if_saved(Kind::Messages, "dev1");
    EXPECT_EQ(count_files(), 2 * kClients - 1);

    drop_all_saved();
    EXPECT_EQ(count_files(), 2 * kClients / 3);
    for (int number = 0; number < kClients; ++number)
        for (const Kind kind : {Kind::Messages, Kind::Subscriptions}) {
            ClientFile *const file = find(kind, id_of(number).c_str());
            ASSERT_EQ(file != nullptr, number % 3 == 0) << number;
            if (!file)
                continue;
            EXPECT_EQ(file->client_id, id_of(number));
            EXPECT_EQ(file->kind, kind);
            file->changes = 0;
        }
    drop_all_saved();
    EXPECT_EQ(count_files(), 0);
}

TEST(make_dir, makes_a_directory_and_leaves_what_is_there)
{
    persist_make_dir("made");
    EXPECT_TRUE(std::filesystem::is_directory("made"));
    persist_make_dir("made/inside");
    EXPECT_TRUE(std::filesystem::is_directory("made/inside"));
    persist_make_dir("made");
    EXPECT_TRUE(std::filesystem::is_directory("made/inside"));
}
