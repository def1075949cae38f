#include "broker/view/screen.h"

#include <clocale>
#include <gmock/gmock.h>

using namespace tarn::broker;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class screen : public testing::Test {
protected:
    screen() { setlocale(LC_CTYPE, "C.UTF-8"); }

    // Two looks a second apart.
    void look(const Counters &first, const Counters &second)
    {
        rates_.add(first, 0);
        rates_.add(second, 1000);
    }

    std::vector<std::string> lines(int rows, int columns, bool blocks = true)
    {
        std::vector<std::string> result;
        for (const Line &line : lay_out(view(), rows, columns, blocks)) {
            std::string text;
            for (const Span &span : line)
                text += span.text;
            text.erase(text.find_last_not_of(' ') + 1);
            result.push_back(text);
        }
        return result;
    }

    View view() const
    {
        return {.rates        = rates_,
                .version      = "V2.0.0",
                .max_clients  = 5000,
                .first_client = first_client_,
                .clients      = clients_,
                .log          = log_};
    }

    Rates                    rates_;
    size_t                   first_client_ = 0;
    std::vector<ClientRow>   clients_;
    std::vector<std::string> log_;
};

Counters some_counters()
{
    Counters c{};
    c.messages_in     = 1'000;
    c.packets_in      = 5'000;
    c.packets_out     = 9'000;
    c.bytes_in        = 123'456'789'012;
    c.bytes_out       = 10;
    c.drop_queue_full = 3;
    c.online          = 2;
    c.most_online     = 4;
    c.pool_used       = 1250;
    c.pool_capacity   = 5000;
    c.subscriptions   = 7;
    c.retained        = 12;
    c.stored_offline  = 1;
    c.wills           = 2;
    c.timeouts        = 3;
    c.undecodable     = 4;
    c.uptime_s        = 3661;
    return c;
}

} // namespace

TEST_F(screen, shows_everything_at_80_by_24)
{
    Counters before = some_counters(), now = before;
    before.packets_in -= 3'000;
    before.drop_queue_full -= 2;
    look(before, now);
    clients_ = {{"a", "127.0.0.1:40000", 60, 5}, {"温度", "127.0.0.1:40001", 30, 90000}};
    log_     = {"one", "[t] [ERROR] two"};
    EXPECT_THAT(lines(24, 80),
                ElementsAre(" tarn-broker V2.0.0   up 01:01:01   clients 2 of 5000, at most 4 so far",
                            "             a second  highest      in all    dropped      a second      in all",
                            "messages in         0        0        1000    offline             0           0",
                            "packets in       3000     3000        5000    queue full          2           3",
                            "packets out         0        0        9000    too big             0           0",
                            "bytes in            0        0        123G    invalid             0           0",
                            "bytes out           0        0          10    send failed         0           0",
                            "pool 1250/5000 ████░░░░░░░░░░░░ 25.0%  subscriptions 7/10000",
                            "retained 12/1000  stored offline 1  wills 2  timeouts 3  undecodable 4",
                            "packets in a second, up to 5000          packets out a second, up to 1",
                            "",                                        //
                            "                                      ▇", //
                            "                                      █",
                            "client                           address                 keep-alive        idle",
                            "a                                127.0.0.1:40000               60 s    00:00:05",
                            "温度                             127.0.0.1:40001               30 s 1d 01:00:00", //
                            "", "", "log", "one", "[t] [ERROR] two", "", "", "q ends the broker"));
}

TEST_F(screen, marks_what_is_wrong)
{
    look(some_counters(), some_counters());
    log_                          = {"[t] [ERROR] x", "fine"};
    const std::vector<Line> drawn = lay_out(view(), 24, 80, true);
    EXPECT_EQ(drawn[0][0].style, Style::Title);
    EXPECT_EQ(drawn[2][1].style, Style::Plain) << "nothing dropped for that reason";
    EXPECT_EQ(drawn[3][1].style, Style::Alert);
    EXPECT_EQ(drawn[19][0].style, Style::Alert);
    EXPECT_EQ(drawn[20][0].style, Style::Plain);
}

// Whatever the size, nothing is drawn outside.
TEST_F(screen, fits_every_size)
{
    look(Counters{}, some_counters());
    first_client_ = 3;
    for (int i = 0; i < 60; ++i) {
        clients_.push_back(
            {"温度温度温度温度温度温度温度温度温度温度温度", "255.255.255.255:65535", 65535, 4'000'000'000});
        log_.push_back(std::string(300, 'x') + "线");
    }
    for (int rows = 0; rows <= 60; ++rows) {
        for (int columns = 0; columns <= 130; columns += 1 + rows % 4) {
            const std::vector<Line> drawn = lay_out(view(), rows, columns, rows % 2 == 0);
            ASSERT_LE(drawn.size(), static_cast<size_t>(rows));
            for (const Line &line : drawn) {
                std::string text;
                for (const Span &span : line)
                    text += span.text;
                ASSERT_EQ(fit(text, columns), text) << rows << " x " << columns << " is too wide";
            }
        }
    }
}

TEST_F(screen, uses_every_row_it_has)
{
    look(Counters{}, some_counters());
    for (int rows = 18; rows <= 100; ++rows)
        EXPECT_EQ(lines(rows, 80).size(), static_cast<size_t>(rows));
}

TEST_F(screen, leaves_out_the_least_important_first)
{
    look(Counters{}, some_counters());
    EXPECT_THAT(lines(1, 80), ElementsAre(HasSubstr("tarn-broker")));
    EXPECT_THAT(lines(6, 80), testing::Not(testing::Contains(HasSubstr("messages in")))) << "whole sections only";
    EXPECT_THAT(lines(7, 80), testing::Contains(HasSubstr("messages in")));
    EXPECT_THAT(lines(9, 80), testing::Contains(HasSubstr("pool ")));
    EXPECT_EQ(client_rows(15), 0u);
    EXPECT_EQ(client_rows(16), 1u);
    EXPECT_EQ(log_rows(17), 0u);
    EXPECT_EQ(log_rows(18), 1u);
    EXPECT_EQ(client_rows(24), 4u);
    EXPECT_EQ(log_rows(24), 4u);
    EXPECT_GT(client_rows(50), client_rows(24));
}

TEST_F(screen, draws_in_ascii_where_it_must)
{
    Counters now{};
    now.packets_in  = 1000;
    now.packets_out = 500;
    look(Counters{}, now);
    const auto drawn = lines(24, 80, false);
    EXPECT_EQ(drawn[7].substr(0, 24), "pool 0/0 ...............");
    EXPECT_EQ(drawn[10], std::string(38, ' ') + "|" + std::string(40, ' ') + "|");
    for (const std::string &line : drawn)
        for (const char c : line)
            ASSERT_LT(static_cast<unsigned char>(c), 0x80) << line;
}

TEST_F(screen, says_that_there_are_more_clients)
{
    look(Counters{}, some_counters());
    clients_ = {{"only", "", 0, 0}};
    EXPECT_EQ(lines(24, 80).back(), "q ends the broker   arrows, page up and down: other clients (from 1)");
    first_client_ = 41;
    EXPECT_EQ(lines(24, 80).back(), "q ends the broker   arrows, page up and down: other clients (from 42)");
}

TEST_F(screen, fit_cuts_at_the_column)
{
    EXPECT_EQ(fit("abc", 2), "ab");
    EXPECT_EQ(fit("abc", 0), "");
    EXPECT_EQ(fit("温度", 4), "温度");
    EXPECT_EQ(fit("温度", 3), "温");
    EXPECT_EQ(fit("e\xCC\x81x", 1), "e\xCC\x81") << "an accent takes no column";
    EXPECT_EQ(fit("a\x1b[2J\xC2\x9B\xFF", 20), "a?[2J??") << "nothing a terminal would obey";
}

TEST_F(screen, field_fills_up)
{
    EXPECT_EQ(field("ab", 4), "ab  ");
    EXPECT_EQ(field("ab", -4), "  ab");
    EXPECT_EQ(field("abcdef", -4), "abcd");
    EXPECT_EQ(field("温", 4), "温  ");
}

TEST(screen_numbers, are_short)
{
    const std::pair<double, const char *> cases[] = {
        {0, "0"},          {0.04, "0"},        {0.05, "0.1"},      {1, "1"},         {9.94, "9.9"},
        {9.96, "10"},      {99999.4, "99999"}, {99999.5, "0.10M"}, {1.5e6, "1.50M"}, {99.96e6, "100M"},
        {999.4e6, "999M"}, {999.6e6, "1.00G"}, {1.8e19, "18.0E"},  {1e30, "many"},
    };
    for (const auto &[value, text] : cases)
        EXPECT_EQ(short_number(value), text) << value;
}

TEST(screen_numbers, durations)
{
    EXPECT_EQ(duration(0), "00:00:00");
    EXPECT_EQ(duration(86399), "23:59:59");
    EXPECT_EQ(duration(86400), "1d 00:00:00");
}

TEST(screen_numbers, scales)
{
    EXPECT_EQ(scale_top(0), 1);
    EXPECT_EQ(scale_top(1), 1);
    EXPECT_EQ(scale_top(1.1), 2);
    EXPECT_EQ(scale_top(2.1), 5);
    EXPECT_EQ(scale_top(5.1), 10);
    EXPECT_EQ(scale_top(12'345), 20'000);
}
