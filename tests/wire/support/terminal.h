// terminal.h - another program with a terminal of its own, which the test reads and types on.
#ifndef TARN_TESTS_WIRE_TERMINAL_H
#define TARN_TESTS_WIRE_TERMINAL_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace tarn::test {

class OnTerminal {
public:
    explicit OnTerminal(const std::vector<std::string> &command);
    ~OnTerminal(); // kills
    OnTerminal(const OnTerminal &)            = delete;
    OnTerminal &operator=(const OnTerminal &) = delete;

    bool shows(const std::string &text); // reads until this is on the screen; false when the program ends before
    bool echoes() const;                 // what is typed
    void type(const std::string &text);
    void hang_up(); // closes the terminal
    int  wait();    // reads to the end; exit code, 128 + signal, or -1 when it does not end

    const std::string &shown() const { return shown_; } // all so far

private:
    bool read_some();

    pid_t       pid_ = -1;
    int         fd_  = -1;
    std::string shown_;
};

} // namespace tarn::test

#endif
