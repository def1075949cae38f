// What docs/tarn-broker.md and README.md say of the options, held to what --help says.
#include "broker/options.h"
#include "support/child.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>

using namespace tarn::broker;
using namespace tarn::test;

namespace {

struct Option {
    std::vector<std::string> names; // "-k", "--keep-alive SECONDS"
    std::string              text;
};

std::vector<std::string> found(const std::string &text, const char *pattern)
{
    const std::regex         expression(pattern);
    std::vector<std::string> matches;
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
        matches.push_back(at->str(at->size() - 1));
    return matches;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::istringstream       in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Lines of names and text in columns; a text goes on below its first line.
std::vector<Option> helped()
{
    constexpr size_t    kColumn = 31;
    std::vector<Option> options;
    for (const std::string &line : lines_of(help_text())) {
        if (line.size() < kColumn || line[0] != ' ')
            continue;
        const std::string names = line.substr(0, kColumn), text = line.substr(kColumn);
        if (names.find('-') == names.npos && !options.empty())
            options.back().text += ' ' + text;
        else if (names.find('-') != names.npos && names.find("tarn-broker") == names.npos)
            options.push_back({found(names, "(--?[a-zA-Z-]+(?: [A-Z0-9]+)?)"), text});
    }
    return options;
}

// Rows of a table whose first cell has options in code.
std::vector<Option> documented(const char *file)
{
    std::vector<Option> options;
    for (const std::string &line : lines_of(file_text(std::string(TARN_SOURCE_DIR "/") + file))) {
        const size_t middle = line.find(" | ", 2);
        if (!line.starts_with("| `-") || middle == line.npos)
            continue;
        std::string text = line.substr(middle);
        std::erase(text, '`');
        options.push_back({found(line.substr(0, middle), "`(-[^`]+)`"), text});
    }
    return options;
}

// What it says about values: ranges and levels with what counts when nothing is given.
std::vector<std::string> values_in(const std::string &text)
{
    return found(text,
                 R"(([0-9]+\.\.[0-9]+ \([0-9]+\)|debug, info, warn or error \(default; with --top it is warn\)))");
}

std::string without_argument(const std::string &name)
{
    return name.substr(0, name.find(' '));
}

// A document may leave arguments out: then only the names count.
bool has_name(const Option &option, const std::string &name)
{
    return std::any_of(option.names.begin(), option.names.end(), [&](const std::string &own) {
        return own == name || (name.find(' ') == name.npos && without_argument(own) == name);
    });
}

const Option *option_called(const std::vector<Option> &options, const std::string &name)
{
    const auto at =
        std::find_if(options.begin(), options.end(), [&](const Option &option) { return has_name(option, name); });
    return at == options.end() ? nullptr : &*at;
}

void expect_only_what_help_says(const char *file)
{
    const std::vector<Option> options = helped();
    const std::vector<Option> rows    = documented(file);
    ASSERT_GE(rows.size(), 8u) << file;
    for (const Option &row : rows) {
        std::vector<std::string> values;
        for (const std::string &name : row.names) {
            const Option *const option = option_called(options, name);
            ASSERT_TRUE(option) << file << " has " << name;
            if (values.empty())
                values = values_in(option->text);
        }
        EXPECT_EQ(values_in(row.text), values) << file << " on " << row.names[0];
    }
}

} // namespace

TEST(options_documented, help_can_be_read_by_this_test)
{
    const std::vector<Option> options = helped();
    ASSERT_EQ(options.size(), 28u);
    EXPECT_THAT(options[0].names, testing::ElementsAre("-l", "--log-level LEVEL"));
    EXPECT_THAT(options[1].names, testing::ElementsAre("--log-limit N"));
    EXPECT_THAT(options[2].names, testing::ElementsAre("-k", "--keep-alive SECONDS"));
    EXPECT_THAT(values_in(options[0].text), testing::SizeIs(1));
    EXPECT_THAT(values_in(options[2].text), testing::ElementsAre("1..3600 (300)"));
}

TEST(options_documented, the_manual_has_every_option_as_help_has_it)
{
    expect_only_what_help_says("docs/tarn-broker.md");
    const std::vector<Option> rows = documented("docs/tarn-broker.md");
    for (const Option &option : helped())
        for (const std::string &name : option.names) {
            const Option *const row = option_called(rows, name);
            ASSERT_TRUE(row) << name << " is missing";
            EXPECT_EQ(row, option_called(rows, option.names[0])) << name << " has a row of its own";
        }
}

TEST(options_documented, the_overview_has_what_takes_values_as_help_has_it)
{
    expect_only_what_help_says("README.md");
    const std::vector<Option> rows = documented("README.md");
    for (const Option &option : helped()) {
        if (values_in(option.text).empty())
            continue;
        for (const std::string &name : option.names)
            EXPECT_TRUE(option_called(rows, without_argument(name))) << name << " is missing";
    }
}
