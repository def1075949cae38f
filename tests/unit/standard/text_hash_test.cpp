// The hash of topics: the known one, and another for each key.
#include "standard/state/text_hash.h"

#include <gtest/gtest.h>

using namespace tarn::standard;

TEST(text_hash, is_siphash_1_3)
{
    const TextHash hash(0, 0); // the numbers are Python's, PYTHONHASHSEED=0
    EXPECT_EQ(hash("a"), 0x407448d2b89b1813u);
    EXPECT_EQ(hash("abcdefg"), 0x6db12aae9070f506u);
    EXPECT_EQ(hash("abcdefgh"), 0x3f7b849c0b8e35eau);
    EXPECT_EQ(hash("abcdefghi"), 0xf89b34a3d11eb6e5u);
    EXPECT_EQ(hash("sensors/house 7/kitchen/temperature"), 0x4e46fb0bced39900u);
}

TEST(text_hash, cannot_be_known_in_advance)
{
    EXPECT_NE(TextHash()("a/b"), TextHash()("a/b"));
    EXPECT_NE(TextHash(1, 0)("a/b"), TextHash(0, 0)("a/b"));
    EXPECT_NE(TextHash(0, 1)("a/b"), TextHash(0, 0)("a/b"));
    const TextHash one;
    EXPECT_EQ(one("a/b"), one("a/b"));
    EXPECT_EQ(one(""), one(std::string_view()));
}

TEST(text_hash, of_a_pair_depends_on_both_and_their_order)
{
    EXPECT_NE(hash_pair(1, 2), hash_pair(2, 1));
    EXPECT_NE(hash_pair(1, 2), hash_pair(1, 3));
    const int a = 0, b = 0;
    EXPECT_NE(hash_pair(&a, &b), hash_pair(&b, &a));
    EXPECT_EQ(hash_pair(&a, &b), hash_pair(&a, &b));
}
