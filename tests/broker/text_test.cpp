#include "broker/text.h"

#include <gmock/gmock.h>
#include <set>

using namespace tarn::broker;
using namespace std::string_view_literals;
using testing::ElementsAre;

TEST(text_json, plain_text_stays)
{
    EXPECT_EQ(json_string(""), "\"\"");
    EXPECT_EQ(json_string("home/x +#$"), "\"home/x +#$\"");
    EXPECT_EQ(json_string("温度/é/😀"), "\"温度/é/😀\"");
}

TEST(text_json, quotes_backslashes_and_controls_are_escaped)
{
    EXPECT_EQ(json_string("a\"b\\c"), R"("a\"b\\c")");
    EXPECT_EQ(json_string("\x01\n\r\t\x1b\x1f\x7f"), R"("\u0001\u000a\u000d\u0009\u001b\u001f\u007f")");
    EXPECT_EQ(json_string("\xC2\x80\xC2\x9F"), R"("\u0080\u009f")");
    EXPECT_EQ(json_string("\xE2\x80\xA8\xE2\x80\xA9"), R"("\u2028\u2029")");
    EXPECT_EQ(json_string("\xC2\xA0"), "\"\xC2\xA0\"");
}

// They would show what follows, or what came before, in another order than it has.
TEST(text_json, bidirectional_controls_are_escaped)
{
    EXPECT_EQ(json_string("\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F"), R"("\u061c\u200e\u200f")");
    EXPECT_EQ(json_string("\xE2\x80\xAA\xE2\x80\xAE\xE2\x81\xA6\xE2\x81\xA9"), R"("\u202a\u202e\u2066\u2069")");
    EXPECT_EQ(json_string("\xE2\x80\x8D\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA"),
              "\"\xE2\x80\x8D\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA\""); // their neighbours
    EXPECT_EQ(quote_word("a\xE2\x80\xAE"), "\"a\\xe2\\x80\\xae\"");
}

TEST(text_escaped, controls_and_what_is_no_utf8_stand_in_words)
{
    EXPECT_EQ(escaped("a b \\ \" 温 \xF0\x9F\x98\x80"), "a b \\ \" 温 \xF0\x9F\x98\x80");
    EXPECT_EQ(escaped("\x1b\n\r\t\x7f\xC2\x85\xE2\x80\xAE"), "\\x1b\\n\\r\\t\\x7f\\xc2\\x85\\xe2\\x80\\xae");
    EXPECT_EQ(escaped("\xE6\xB8x\xFF"), "\\xe6\\xb8x\\xff");
    EXPECT_EQ(escaped(""), "");
}

// Each byte that belongs to no character is one U+FFFD, and what follows it is read for itself.
TEST(text_json, broken_utf8_becomes_replacement_characters)
{
    const std::string bad = "\xEF\xBF\xBD";
    EXPECT_EQ(json_string("\x80"), '"' + bad + '"');
    EXPECT_EQ(json_string("\xC3"), '"' + bad + '"');
    EXPECT_EQ(json_string("\xC3\""), '"' + bad + "\\\"\"");
    EXPECT_EQ(json_string("\xE6\xB8x"), '"' + bad + bad + "x\"");
    EXPECT_EQ(json_string("\xC0\x80"), '"' + bad + bad + '"');           // overlong
    EXPECT_EQ(json_string("\xC1\xBF"), '"' + bad + bad + '"');           // overlong
    EXPECT_EQ(json_string("\xE0\x9F\xBF"), '"' + bad + bad + bad + '"'); // overlong
    EXPECT_EQ(json_string("\xE0\xA0\x80"), "\"\xE0\xA0\x80\"");          // the first of three bytes
    EXPECT_EQ(json_string("\xED\xA0\x80"), '"' + bad + bad + bad + '"'); // a surrogate
    EXPECT_EQ(json_string("\xED\xBF\xBF"), '"' + bad + bad + bad + '"'); // the last of them
    EXPECT_EQ(json_string("\xEE\x80\x80"), "\"\xEE\x80\x80\"");          // behind them
    EXPECT_EQ(json_string("\xF0\x8F\xBF\xBF"), '"' + bad + bad + bad + bad + '"');
    EXPECT_EQ(json_string("\xF4\x8F\xBF\xBF"), "\"\xF4\x8F\xBF\xBF\""); // the last there is
    EXPECT_EQ(json_string("\xF4\x90\x80\x80"), '"' + bad + bad + bad + bad + '"');
    EXPECT_EQ(json_string("\xF5\xFF"), '"' + bad + bad + '"');
}

TEST(text_utf8, a_character_is_read_to_the_limits_of_each_length)
{
    struct Row {
        std::string_view text;
        char32_t         character;
    };
    for (const Row &row : {Row{"a"sv, U'a'}, Row{"\x7F"sv, 0x7F}, Row{"\xC2\x80"sv, 0x80}, Row{"\xDF\xBF"sv, 0x7FF},
                           Row{"\xE0\xA0\x80"sv, 0x800}, Row{"\xEF\xBF\xBF"sv, 0xFFFF},
                           Row{"\xF0\x90\x80\x80"sv, 0x10000}, Row{"\xF4\x8F\xBF\xBF"sv, 0x10FFFF}}) {
        const Decoded read = decode_utf8(row.text);
        EXPECT_EQ(read.character, row.character);
        EXPECT_EQ(read.bytes, row.text.size());
    }
}

TEST(text_utf8, is_valid_to_the_limits_of_each_length)
{
    for (const std::string_view good :
         {""sv, "a"sv, "\x7F"sv, "\xC2\x80"sv, "\xDF\xBF"sv, "\xE0\xA0\x80"sv, "\xED\x9F\xBF"sv, "\xEE\x80\x80"sv,
          "\xEF\xBF\xBF"sv, "\xF0\x90\x80\x80"sv, "\xF4\x8F\xBF\xBF"sv, "a\xC3\xA4z"sv})
        EXPECT_TRUE(is_utf8(good)) << good;
    for (const std::string_view bad :
         {"\x80"sv, "\xBF"sv, "\xC0\x80"sv, "\xC1\xBF"sv, "\xC2"sv, "\xC2\x7F"sv, "\xC2\xC0"sv, "\xE0\x9F\xBF"sv,
          "\xE1\x80"sv, "\xE1\x80\x7F"sv, "\xED\xA0\x80"sv, "\xF0\x8F\xBF\xBF"sv, "\xF0\x90\x80"sv,
          "\xF0\x90\x80\xC0"sv, "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv, "a\xC3"sv})
        EXPECT_FALSE(is_utf8(bad)) << bad;
}

TEST(text_words, are_cut_at_blanks)
{
    EXPECT_THAT(split_words("").words, ElementsAre());
    EXPECT_THAT(split_words(" \t ").words, ElementsAre());
    EXPECT_THAT(split_words("  kick\ta  b ").words, ElementsAre("kick", "a", "b"));
    EXPECT_THAT(split_words(R"(a\b it"s)").words, ElementsAre(R"(a\b)", R"(it"s)"));
}

TEST(text_words, quotes_hold_blanks_and_escapes)
{
    EXPECT_THAT(split_words(R"("a b" "" "\"\\\n\r\t\x1B\xc3\xa9")").words,
                ElementsAre("a b", "", "\"\\\n\r\t\x1B\xC3\xA9"));
}

TEST(text_words, mistakes_in_quotes_are_told)
{
    const std::string escapes = "in quotes \\ is followed by \" \\ n r t or x and two hex digits other than 00";
    EXPECT_EQ(split_words("\"a").error, "a quote is not closed");
    EXPECT_EQ(split_words("\"").error, "a quote is not closed");
    EXPECT_EQ(split_words(R"("a"b)").error, "a blank must follow a closing quote");
    for (const char *line : {R"("\q")", R"("\x1")", R"("\xg0")", R"("\x0g")", R"("\x00")", R"("\)"})
        EXPECT_EQ(split_words(line).error, escapes) << line;
}

TEST(text_words, every_text_survives_being_quoted)
{
    for (int byte = 1; byte < 256; ++byte) {
        for (const std::string &text :
             {std::string(1, static_cast<char>(byte)), 'a' + std::string(1, static_cast<char>(byte)) + 'b'}) {
            const std::string quoted = quote_word(text);
            EXPECT_THAT(split_words(quoted + " x").words, ElementsAre(text, "x")) << quoted;
            EXPECT_EQ(json_string(quoted).find("\\u"), std::string::npos) << "a control in " << quoted;
            EXPECT_EQ(json_string(quoted).find("\xEF\xBF\xBD"), std::string::npos) << "no UTF-8 in " << quoted;
        }
    }
    EXPECT_THAT(split_words(quote_word("")).words, ElementsAre(""));
}

TEST(text_words, only_what_needs_quotes_gets_them)
{
    EXPECT_EQ(quote_word("home/温度/é"), "home/温度/é");
    EXPECT_EQ(quote_word("it\"s"), "it\"s");
    EXPECT_EQ(quote_word(""), R"("")");
    EXPECT_EQ(quote_word("a b"), R"("a b")");
    EXPECT_EQ(quote_word("\n\xC2\x85"), R"("\n\xc2\x85")");
    EXPECT_EQ(quote_word("ok"), R"("ok")"); // would look like the end of an answer
    EXPECT_EQ(quote_word("error:"), R"("error:")");
    EXPECT_EQ(quote_word("okay"), "okay");
}

namespace {

std::vector<std::string> names(std::string_view list, const std::set<std::string> &there, size_t max_bytes = 8)
{
    return names_in_list(list, ',', max_bytes, [&](const std::string &name) { return there.contains(name); });
}

} // namespace

// Also the piece behind the last separator, or an id that ends in one would not be known to be online.
TEST(text_pieces, are_what_stands_between_the_separators)
{
    EXPECT_THAT(pieces_of("", ','), ElementsAre());
    EXPECT_THAT(pieces_of("a", ','), ElementsAre("a"));
    EXPECT_THAT(pieces_of("a,b,a", ','), ElementsAre("a", "b", "a"));
    EXPECT_THAT(pieces_of(",a,,b,", ','), ElementsAre("", "a", "", "b", ""));
}

TEST(text_names, are_found_in_the_order_of_the_list)
{
    EXPECT_THAT(names("", {}), ElementsAre());
    EXPECT_THAT(names("b", {"b"}), ElementsAre("b"));
    EXPECT_THAT(names("b,a,c", {"a", "b", "c"}), ElementsAre("b", "a", "c"));
    EXPECT_THAT(names("b,gone,c", {"b", "c"}), ElementsAre("b", "c"));
}

TEST(text_names, may_contain_the_separator)
{
    EXPECT_THAT(names("a,b", {"a,b"}), ElementsAre("a,b"));
    EXPECT_THAT(names("x,a,,b,y", {"x", "a,,b", "y"}), ElementsAre("x", "a,,b", "y"));
    EXPECT_THAT(names(",a", {",a"}), ElementsAre(",a"));
    EXPECT_THAT(names("a,", {"a,"}), ElementsAre("a,"));
    EXPECT_THAT(names(",", {","}), ElementsAre(","));
    EXPECT_THAT(names("1234,678", {"1234,678"}), ElementsAre("1234,678"));
    EXPECT_THAT(names("1234,6789", {"1234,6789"}), ElementsAre()) << "longer than any name can be";
}

// a, b, and one that is called "a,b": whatever the order, each is found once.
TEST(text_names, are_told_apart_from_pieces_of_others)
{
    for (const char *list : {"a,b,a,b", "a,a,b,b"})
        EXPECT_THAT(names(list, {"a", "b", "a,b"}), testing::UnorderedElementsAre("a", "b", "a,b")) << list;
}
