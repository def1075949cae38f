// terminal.h - lines on a terminal, drawn by ncurses.
//
// ncurses waits as long as a terminal takes nothing, and a broker must not: so ncurses draws into memory, and what it
// drew goes out as far as the terminal takes it. The terminal gets its old state back in the destructor, and when the
// process is ended by one of the signals that mean a fault or have no one to handle them.
#ifndef TARN_BROKER_VIEW_TERMINAL_H
#define TARN_BROKER_VIEW_TERMINAL_H

#include "screen.h"

#include <cstdio>
#include <string>
#include <termios.h>
#include <vector>

struct screen;

namespace tarn::broker {

class Terminal {
public:
    // Before there are threads, since it chooses the character set. Returns what keeps standard output from being one
    // that can be drawn on, or "".
    static std::string prepare();

    enum class Key { None, End, Up, Down, PageUp, PageDown, First, Last, Redraw };

    Terminal(); // after prepare() found no fault
    ~Terminal();
    Terminal(const Terminal &)            = delete;
    Terminal &operator=(const Terminal &) = delete;

    std::string error() const { return error_; } // of the constructor; then nothing else may be called
    int         fd() const { return fd_; }       // to be watched for keys
    bool        gone() const;                    // nobody is there any more
    Key         key();                           // the next one typed

    struct Size {
        int rows, columns;
    };
    Size size();                            // as it is now
    bool blocks() const { return blocks_; } // whether it shows more than ASCII

    bool draw(const std::vector<Line> &lines, bool afresh); // true when all is out
    bool flush();                                           // sends what it can; true when all is out

    void give_back(); // as it was before, for a while
    void take_again();

private:
    void set_raw();

    int         fd_     = -1;
    FILE       *in_     = nullptr;
    FILE       *memory_ = nullptr; // what ncurses writes
    screen     *screen_ = nullptr;
    termios     before_{};
    std::string pending_; // drawn, not out yet
    std::string error_;
    bool        blocks_ = false;
};

} // namespace tarn::broker

#endif
