// UTF-8, topic names and topic filters.
#include "codec/standard/topic.h"
#include "codec/standard/utf8.h"

#include <gtest/gtest.h>
#include <string>

using namespace tarn::codec::standard;
using namespace std::string_literals;

namespace {

// Alone, and among ASCII at each place relative to the words of eight bytes.
void expect_utf8(const std::string &sequence, bool expected)
{
    EXPECT_EQ(is_utf8(sequence), expected) << testing::PrintToString(sequence);
    for (size_t before = 0; before <= 17; ++before)
        for (const size_t behind : {size_t{0}, size_t{1}, size_t{9}})
            EXPECT_EQ(is_utf8(std::string(before, 'x') + sequence + std::string(behind, 'y')), expected)
                << testing::PrintToString(sequence) << " behind " << before;
}

std::string encoded(uint32_t point)
{
    const auto byte = [](uint32_t value) { return static_cast<char>(value); };
    if (point < 0x80)
        return {byte(point)};
    if (point < 0x800)
        return {byte(0xC0 | point >> 6), byte(0x80 | (point & 0x3F))};
    if (point < 0x10000)
        return {byte(0xE0 | point >> 12), byte(0x80 | (point >> 6 & 0x3F)), byte(0x80 | (point & 0x3F))};
    return {byte(0xF0 | point >> 18), byte(0x80 | (point >> 12 & 0x3F)), byte(0x80 | (point >> 6 & 0x3F)),
            byte(0x80 | (point & 0x3F))};
}

// "group|filter", "filter" or "refused".
std::string parsed(std::string_view text)
{
    TopicFilter filter;
    if (!parse_filter(text, filter))
        return "refused";
    return filter.is_shared() ? std::string(filter.group) + "|" + std::string(filter.filter)
                              : std::string(filter.filter);
}

} // namespace

TEST(utf8, every_character_but_null_and_surrogates_passes)
{
    EXPECT_TRUE(is_utf8(""));
    for (uint32_t point = 0; point <= 0x10FFFF; point += point < 0x11000 ? 1 : 97)
        EXPECT_EQ(is_utf8(encoded(point)), point != 0 && (point < 0xD800 || point > 0xDFFF)) << std::hex << point;
    EXPECT_FALSE(is_utf8(encoded(0x110000)));
    EXPECT_TRUE(is_utf8(encoded(0x10FFFF)));
}

TEST(utf8, characters_at_each_place)
{
    expect_utf8("\x7F", true);
    expect_utf8("\x01", true);
    expect_utf8("\u00E9", true);
    expect_utf8("\uFEFF", true); // [MQTT-1.5.4-3]
    expect_utf8("\uFFFF", true);
    expect_utf8("\U0001F600", true);
}

TEST(utf8, null_is_refused) // [MQTT-1.5.4-2]
{
    expect_utf8("\0"s, false);
}

TEST(utf8, ill_formed_sequences_are_refused) // [MQTT-1.5.4-1]
{
    for (const auto &sequence : {"\x80"s,
                                 "\xBF"s, // no lead
                                 "\xC0\x80"s,
                                 "\xC1\xBF"s,
                                 "\xE0\x80\x80"s,
                                 "\xE0\x9F\xBF"s,
                                 "\xF0\x80\x80\x80"s,
                                 "\xF0\x8F\xBF\xBF"s, // overlong
                                 "\xED\xA0\x80"s,
                                 "\xED\xBF\xBF"s, // surrogates
                                 "\xF4\x90\x80\x80"s,
                                 "\xF5\x80\x80\x80"s,
                                 "\xFE"s,
                                 "\xFF"s, // above U+10FFFF
                                 "\xC3"s,
                                 "\xE2\x82"s,
                                 "\xF0\x9F\x98"s, // cut
                                 "\xC3x"s,
                                 "\xE2x\x82"s,
                                 "\xE2\x82x"s,
                                 "\xF0\x9F\x98x"s,
                                 "\xF0\x9Fx\x98"s})
        expect_utf8(sequence, false);
}

TEST(topic_name, has_a_character_and_no_wildcard)
{
    for (const auto *topic : {"a", "/", "a/b", "//", "$SYS/x", " ", "a b"})
        EXPECT_TRUE(is_topic_name(topic)) << topic;
    for (const auto *topic : {"", "+", "#", "a/+", "a+b", "a/#", "x#"}) // [MQTT-4.7.3-1] [MQTT-3.3.2-2]
        EXPECT_FALSE(is_topic_name(topic)) << topic;
}

TEST(topic_filter, wildcards_stand_alone_in_their_levels)
{
    for (const auto *filter : {"a", "/", "#", "+", "a/#", "/#", "+/#", "+/+", "/+", "+/", "a/+/b", "a//#", "$SYS/#"})
        EXPECT_EQ(parsed(filter), filter);
    // [MQTT-4.7.3-1] [MQTT-4.7.1-1] [MQTT-4.7.1-2]
    for (const auto *filter :
         {"", "a#", "#a", "#/", "a/#/b", "##", "#/#", "a+", "+a", "a/b+", "++", "+#", "#+", "a/+b/c"})
        EXPECT_EQ(parsed(filter), "refused") << filter;
}

TEST(topic_filter, shared_ones_have_a_group_and_a_filter)
{
    EXPECT_EQ(parsed("$share/g/a"), "g|a");
    EXPECT_EQ(parsed("$share/g/#"), "g|#");
    EXPECT_EQ(parsed("$share/g//a"), "g|/a");
    EXPECT_EQ(parsed("$share/g h/+/b"), "g h|+/b");
    EXPECT_EQ(parsed("$share/g/$share/h/a"), "g|$share/h/a");
    for (const auto *filter : {"$share/", "$share//a", "$share//"}) // [MQTT-4.8.2-1]
        EXPECT_EQ(parsed(filter), "refused") << filter;
    for (const auto *filter : {"$share/g", "$share/g/", "$share/+/a", "$share/g#/a", "$share/g+h/a", "$share/#",
                               "$share/g/a#", "$share/g/#/a"}) // [MQTT-4.8.2-2]
        EXPECT_EQ(parsed(filter), "refused") << filter;
}

TEST(topic_filter, others_with_a_dollar_are_plain)
{
    for (const auto *filter : {"$share", "$shared/g/a", "$SHARE/g/a", "a/$share/g/b"})
        EXPECT_EQ(parsed(filter), filter);
}
