#include "broker/options.h"

#include <gtest/gtest.h>
#include <initializer_list>
#include <vector>

using namespace tarn::broker;

namespace {

CommandLine read(std::initializer_list<const char *> arguments)
{
    std::vector<std::string> texts{"tarn-broker"};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    return read_command_line(static_cast<int>(texts.size()), argv.data());
}

std::string error_of(std::initializer_list<const char *> arguments)
{
    return read(arguments).error;
}

struct NumberRow {      // what a number may be, and what it is when nobody says
    const char *letter; // its short form; where there is none, the name again
    const char *name;
    int32_t     lowest, highest, usual;
    int32_t Options::*target;

    std::string refusal(const std::string &text) const
    {
        return std::string(name) + " takes a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
               ", not '" + text + "'";
    }
};
constexpr NumberRow kNumbers[] = {
    {"-k", "--keep-alive", 1, 3600, 300, &Options::keepalive_s},
    {"--max-packet-size", "--max-packet-size", 256, 10485760, 4096, &Options::max_packet_size},
    {"-c", "--max-clients", 1, 11000, 5000, &Options::max_clients},
};

} // namespace

TEST(options, nothing_given_serves_with_the_librarys_defaults)
{
    const CommandLine line = read({});
    EXPECT_EQ(line.error, "");
    EXPECT_EQ(line.wish, Wish::Serve);
    EXPECT_EQ(line.options.level(), 3u);
    for (const NumberRow &row : kNumbers)
        EXPECT_EQ(line.options.*row.target, row.usual) << row.name;
}

TEST(options, standard_serves_tcp_alone)
{
    EXPECT_FALSE(read({}).options.standard);
    EXPECT_TRUE(read({"--standard"}).options.standard);
    EXPECT_EQ(error_of({"--standard"}), "");
    EXPECT_EQ(error_of({"--standard", "--no-udp"}), "");
    EXPECT_EQ(error_of({"--udp", "--no-udp", "--standard"}), "");
    EXPECT_EQ(error_of({"--udp", "--standard"}), "--udp is not for --standard, which serves TCP alone");
    EXPECT_EQ(error_of({"--standard", "--udp"}), "--udp is not for --standard, which serves TCP alone");
}

TEST(options, a_packet_size_that_is_given_is_known_from_the_usual_one)
{
    EXPECT_FALSE(read({}).options.has_packet_size);
    EXPECT_TRUE(read({"--max-packet-size", "4096"}).options.has_packet_size);
}

TEST(options, short_and_long_names_set_the_same)
{
    for (const CommandLine &line : {read({"-l", "info", "-k60", "-c", "7"}),
                                    read({"--log-level=info", "--keep-alive", "60", "--max-clients", "7"})}) {
        EXPECT_EQ(line.error, "");
        EXPECT_EQ(line.options.level(), 1u);
        EXPECT_EQ(line.options.keepalive_s, 60);
        EXPECT_EQ(line.options.max_clients, 7);
    }
}

TEST(options, levels_are_numbered_as_in_the_library)
{
    EXPECT_EQ(read({"-l", "debug"}).options.level(), 0u);
    EXPECT_EQ(read({"-l", "info"}).options.level(), 1u);
    EXPECT_EQ(read({"-l", "warn"}).options.level(), 2u);
    EXPECT_EQ(read({"-l", "error"}).options.level(), 3u);
    EXPECT_EQ(error_of({"-l", "fatal"}), "--log-level takes debug, info, warn or error, not 'fatal'");
    EXPECT_EQ(error_of({"-l", ""}), "--log-level takes debug, info, warn or error, not ''");
}

TEST(options, who_looks_on_sees_warnings_unless_asked_otherwise)
{
    EXPECT_EQ(read({"--top"}).options.level(), 2u);
    EXPECT_EQ(read({"--top", "-l", "error"}).options.level(), 3u);
    EXPECT_EQ(read({"-l", "error", "--top"}).options.level(), 3u);
}

TEST(options, the_port_is_always_1883)
{
    for (const CommandLine &line : {read({"-p", "1883"}), read({"-p1883"}), read({"--port", "1883"})}) {
        EXPECT_EQ(line.error, "");
        EXPECT_EQ(line.wish, Wish::Serve);
        EXPECT_EQ(line.options.max_packet_size, 4096);
    }
    for (const char *text : {"1884", "8883", "0", "", "x", "01883", "1883 "}) {
        EXPECT_EQ(error_of({"-p", text}), std::string("the port is always 1883, it cannot be '") + text + "'");
        EXPECT_EQ(error_of({"--port", text}), std::string("the port is always 1883, it cannot be '") + text + "'");
    }
}

TEST(options, numbers_are_taken_to_their_limits)
{
    for (const NumberRow &row : kNumbers)
        for (const int32_t value : {row.lowest, row.highest}) {
            const std::string text = std::to_string(value), joined = std::string(row.name) + '=' + text;
            EXPECT_EQ(read({row.letter, text.c_str()}).options.*row.target, value) << row.name;
            EXPECT_EQ(read({joined.c_str()}).options.*row.target, value) << joined;
        }
}

TEST(options, numbers_beyond_their_limits_are_refused)
{
    for (const NumberRow &row : kNumbers)
        for (const int32_t value : {row.lowest - 1, row.highest + 1}) {
            const std::string text = std::to_string(value), joined = std::string(row.name) + '=' + text;
            EXPECT_EQ(error_of({row.letter, text.c_str()}), row.refusal(text));
            EXPECT_EQ(error_of({joined.c_str()}), row.refusal(text));
        }
}

TEST(options, texts_that_are_no_numbers_are_refused)
{
    for (const char *text : {"", "x", "5x", "0x10", "5 ", "-5", "1.5", "99999999999999999999"})
        for (const NumberRow &row : kNumbers)
            EXPECT_EQ(error_of({row.letter, text}), row.refusal(text));
}

TEST(options, names_are_taken_as_they_are)
{
    const CommandLine none = read({});
    for (const std::string &name :
         {none.options.directory, none.options.user_file, none.options.acl_file, none.options.user})
        EXPECT_EQ(name, "");
    const CommandLine line = read({"--directory", "a dir", "--user-file=users", "--acl-file", "-", "--user", "nobody"});
    EXPECT_EQ(line.error, "");
    EXPECT_EQ(line.options.directory, "a dir");
    EXPECT_EQ(line.options.user_file, "users");
    EXPECT_EQ(line.options.acl_file, "-");
    EXPECT_EQ(line.options.user, "nobody");
    EXPECT_EQ(error_of({"--user-file="}), "--user-file takes a name, not an empty one");
}

TEST(options, help_and_version_end_the_reading)
{
    EXPECT_EQ(read({"-h"}).wish, Wish::Help);
    EXPECT_EQ(read({"--help"}).wish, Wish::Help);
    EXPECT_EQ(read({"-V"}).wish, Wish::Version);
    EXPECT_EQ(read({"--version"}).wish, Wish::Version);
    EXPECT_EQ(error_of({"--help", "--bogus"}), "");
}

TEST(options, help_lists_every_option_in_columns)
{
    const std::string text = help_text();
    EXPECT_NE(text.find("\n  -k, --keep-alive SECONDS     silence after which a connection without CONNECT is closed, "
                        "1..3600 (300)\n"),
              std::string::npos);
    EXPECT_NE(text.find("no packet of more than\n                               4096 bytes"), std::string::npos);
    for (const char *name : {"--log-level", "-p, --port 1883 ", "--max-packet-size", "--max-clients", "--user-file",
                             "--acl-file", "--user NAME", "--directory", "--help", "--version"})
        EXPECT_NE(text.find(name), std::string::npos) << name;
}

TEST(options, help_tells_what_numbers_may_be)
{
    for (const NumberRow &row : kNumbers)
        EXPECT_NE(help_text().find(std::to_string(row.lowest) + ".." + std::to_string(row.highest) + " (" +
                                   std::to_string(row.usual) + ")"),
                  std::string::npos)
            << row.name;
}

TEST(options, mistakes_are_named)
{
    EXPECT_EQ(error_of({"--bogus"}), "unknown option '--bogus'");
    EXPECT_EQ(error_of({"-x"}), "unknown option '-x'");
    EXPECT_EQ(error_of({"--help=3"}), "--help takes no value");
    EXPECT_EQ(error_of({"-k"}), "-k needs a value");
    EXPECT_EQ(error_of({"--keep-alive"}), "--keep-alive needs a value");
    EXPECT_EQ(error_of({"1883"}), "unexpected argument '1883'");
    EXPECT_EQ(error_of({"-k", "5", "--", "more"}), "unexpected argument 'more'");
}
