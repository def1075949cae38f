#include "broker/access/keyed_hash.h"
#include "broker/access/users.h"

#include <atomic>
#include <crypt.h>
#include <gtest/gtest.h>
#include <new>
#include <thread>
#include <vector>

using namespace tarn::broker;

namespace {

// "right" by sha512crypt at its lowest cost, so that tests are quick.
constexpr const char *kRight = "$6$rounds=1000$salt$"
                               "yiW6N.84VzeTC0bx5oZcI6R7GA6ccCfWQfaJEjLTn3tSOj35.DFqvDPhk41tF8IpdfgKnpLGt5EmXsjEnq0Dy.";

std::atomic<unsigned> g_hashings;
std::atomic<bool>     g_hashing_fails; // as without memory

struct users : testing::Test {
    std::string parse(const std::string &text)
    {
        std::string mistake = file.parse("users", text);
        g_hashings          = 0; // what making a hash may have cost does not count
        return mistake;
    }
    static unsigned hashings() { return g_hashings; } // since the file was read
    Users           file;
};

} // namespace

// The system's hash function, counted and made to fail: the program is linked with --wrap=crypt_r.
extern "C" {
char *__real_crypt_r(const char *password, const char *setting, crypt_data *data);
char *__wrap_crypt_r(const char *password, const char *setting, crypt_data *data)
{
    ++g_hashings;
    if (g_hashing_fails)
        return nullptr;
    return __real_crypt_r(password, setting, data);
}
}

TEST_F(users, whose_password_cannot_be_hashed_gave_no_wrong_one)
{
    ASSERT_EQ(parse(std::string("alice:") + kRight + "\n"), "");
    g_hashing_fails = true;
    EXPECT_THROW(file.check("alice", "right"), std::bad_alloc);
    g_hashing_fails = false;
    EXPECT_TRUE(file.check("alice", "right"));
}

TEST_F(users, are_found_with_their_password)
{
    ASSERT_EQ(parse(std::string("alice:") + kRight + "\n"), "");
    EXPECT_TRUE(file.has("alice"));
    EXPECT_FALSE(file.has("bob"));
    EXPECT_TRUE(file.check("alice", "right"));
    EXPECT_FALSE(file.check("alice", "wrong"));
    EXPECT_FALSE(file.check("alice", ""));
    EXPECT_FALSE(file.check("bob", "right"));
    EXPECT_FALSE(file.check("", "right"));
}

TEST_F(users, stand_among_comments_and_blank_lines)
{
    ASSERT_EQ(parse(std::string("# who\n\n  \t\n  alice:") + kRight + "  \r\n#bob:x\n\nc d:" + kRight), "");
    EXPECT_EQ(file.count(), 2u);
    EXPECT_TRUE(file.check("alice", "right"));
    EXPECT_TRUE(file.check("c d", "right"));
}

TEST_F(users, of_an_empty_file_are_none)
{
    EXPECT_EQ(parse(""), "");
    EXPECT_FALSE(file.check("alice", "-")); // what the hash that stands in was made from
}

TEST_F(users, mistakes_are_told_with_their_line)
{
    struct Row {
        std::string line, mistake;
    };
    const std::string hash = kRight;
    for (const Row &row : std::vector<Row>{
             {"alice", "a line is NAME:HASH, and here is no ':'"},
             {":" + hash, "the user's name is empty"},
             {"a :" + hash, "the user's name begins or ends with a space"},
             {"a\x01:" + hash, "the user's name contains a control character"},
             {"a\x7F:" + hash, "the user's name contains a control character"},
             {std::string(65, 'a') + ":" + hash, "the user's name has more than 64 bytes"},
             {"alice:", "the hash is missing"},
             {"alice:" + hash + ":more", "there is something behind the hash"},
             {"alice:" + hash + " more", "there is something behind the hash"},
             {"alice:secret", "this kind of hash is too weak; make one with tarn-broker passwd"}, // DES, by its looks
             {"alice:$1$salt$2I9tQ1s1LuKvNzZ4pGAXw/",
              "this kind of hash is too weak; make one with tarn-broker passwd"},
             {"alice:*", "this is no password hash; make one with tarn-broker passwd"},
             {"alice:$0$salt", "this is no password hash; make one with tarn-broker passwd"},
             {"first:" + hash, "user 'first' was there before"},
         }) {
        Users other;
        EXPECT_EQ(other.parse("FILE", "# comment\nfirst:" + hash + "\n\n" + row.line + "\n"), "FILE:4: " + row.mistake)
            << row.line;
    }
    EXPECT_EQ(parse(std::string(64, 'a') + ":" + hash), "");
}

TEST_F(users, hashes_that_are_made_are_accepted_and_salted)
{
    const std::string one = hash_password("secret"), two = hash_password("secret");
    EXPECT_EQ(one.substr(0, 3), "$y$");
    EXPECT_NE(one, two);
    ASSERT_EQ(parse("a:" + one + "\nb:" + two + "\n"), "");
    EXPECT_TRUE(file.check("a", "secret"));
    EXPECT_TRUE(file.check("b", "secret"));
    EXPECT_FALSE(file.check("a", "Secret"));
}

// What the thread that serves everybody pays for.
TEST_F(users, a_right_password_is_hashed_once)
{
    ASSERT_EQ(parse(std::string("alice:") + kRight + "\nbob:" + kRight), "");
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(file.check("alice", "right"));
    EXPECT_EQ(hashings(), 1u);
    EXPECT_TRUE(file.check("bob", "right")); // each user for himself
    EXPECT_EQ(hashings(), 2u);
}

TEST_F(users, a_wrong_password_and_an_unknown_user_are_hashed_each_time)
{
    ASSERT_EQ(parse(std::string("alice:") + kRight), "");
    EXPECT_FALSE(file.check("alice", "wrong"));
    EXPECT_FALSE(file.check("alice", "wrong"));
    EXPECT_EQ(hashings(), 2u);
    EXPECT_FALSE(file.check("nobody", "right"));
    EXPECT_FALSE(file.check("nobody", "right"));
    EXPECT_EQ(hashings(), 4u);
    EXPECT_TRUE(file.check("alice", "right")); // wrong ones are not what is remembered
    EXPECT_TRUE(file.check("alice", "right"));
    EXPECT_FALSE(file.check("alice", "wrong"));
    EXPECT_EQ(hashings(), 6u);
}

TEST_F(users, are_checked_by_several_threads)
{
    ASSERT_EQ(parse(std::string("alice:") + kRight + "\nbob:" + kRight), "");
    std::vector<std::thread> threads;
    for (const char *name : {"alice", "bob", "alice", "nobody"})
        threads.emplace_back([this, name] {
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(file.check(name, "right"), std::string(name) != "nobody");
        });
    for (std::thread &thread : threads)
        thread.join();
}

// The key 00 01 .. 0f and the texts "", 00, 00 01, ... of the published vectors.
TEST(keyed_hash, is_siphash_2_4_128)
{
    const HashKey key{0x0706050403020100, 0x0f0e0d0c0b0a0908};
    EXPECT_EQ(keyed_hash(key, ""), (Hash128{0xe6a825ba047f81a3, 0x930255c71472f66d}));
    EXPECT_EQ(keyed_hash(key, std::string_view("\0", 1)), (Hash128{0x44af996bd8c187da, 0x45fc229b11597634}));
    std::string text;
    for (char c = 0; c < 15; ++c)
        text += c;
    EXPECT_EQ(keyed_hash(key, text), (Hash128{0x11a8b03399e99354, 0xd9c3cf970fec087e}));
}

TEST(keyed_hash, depends_on_all_of_key_and_text)
{
    const HashKey key = random_key();
    EXPECT_NE(key, random_key());
    const Hash128 hash = keyed_hash(key, "0123456789abcdef");
    EXPECT_EQ(hash, keyed_hash(key, "0123456789abcdef"));
    for (size_t i = 0; i < 16; ++i) {
        std::string other = "0123456789abcdef";
        other[i] ^= 1;
        EXPECT_NE(hash, keyed_hash(key, other)) << i;
    }
    EXPECT_NE(hash, keyed_hash({key[0] ^ 1, key[1]}, "0123456789abcdef"));
    EXPECT_NE(hash, keyed_hash({key[0], key[1] ^ 1}, "0123456789abcdef"));
}

TEST(keyed_hash, comparing_sees_every_byte)
{
    EXPECT_TRUE(equal_in_constant_time("", ""));
    EXPECT_TRUE(equal_in_constant_time("abc", "abc"));
    EXPECT_FALSE(equal_in_constant_time("abc", "abcd"));
    for (const char *other : {"xbc", "axc", "abx"})
        EXPECT_FALSE(equal_in_constant_time("abc", other));
}
