// screen.h - what --top shows, as lines of text for a screen of any size; the caller draws them. Only the character set
// of the locale decides what can be shown: nothing else here knows of a terminal.
#ifndef TARN_BROKER_VIEW_SCREEN_H
#define TARN_BROKER_VIEW_SCREEN_H

#include "rates.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::broker {

enum class Style { Plain, Title, Head, Graph, Alert };
struct Span {
    std::string text; // printable characters only
    Style       style = Style::Plain;
};
using Line = std::vector<Span>;

struct ClientRow {
    std::string id;
    std::string address;
    unsigned    keepalive_s = 0;
    unsigned    idle_s      = 0;
};

struct View {
    const Rates             &rates;
    std::string              version;
    int                      max_clients  = 0;
    size_t                   first_client = 0; // place of the first row among all clients
    std::vector<ClientRow>   clients;          // as many as client_rows() said, or fewer
    std::vector<std::string> log;              // oldest first
};

// How many rows of clients, and lines of the log, a screen of that height shows.
size_t client_rows(int rows);
size_t log_rows(int rows);

// At most `rows` lines, none wider than `columns`. Graphs are drawn in blocks, or in ASCII.
std::vector<Line> lay_out(const View &view, int rows, int columns, bool blocks);

// ---- pieces of it

std::string fit(std::string_view text, int columns);   // printable and cut to that width
std::string field(std::string_view text, int columns); // the same, filled with blanks; right-aligned when negative
std::string short_number(double value);                // 6 characters at most: 0, 0.3, 999, 12345, 1.23M
std::string duration(uint64_t seconds);                // 04:05:06 or 3d 04:05:06
double      scale_top(double highest);                 // the next of 1, 2, 5, 10, 20, 50...

} // namespace tarn::broker

#endif
