// child.h - another program, run from the test's directory and network, its output kept in files there.
#ifndef TARN_TESTS_WIRE_CHILD_H
#define TARN_TESTS_WIRE_CHILD_H

#include "support/files.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace tarn::test {

std::string tail(const std::string &text, int lines = 40); // its last lines

std::vector<char *> words_of(const std::vector<std::string> &command); // for exec, as long as the command lives
int                 exit_code_of(int status);                          // 128 + signal when that ended it

class Child {
public:
    Child() = default;
    // Output goes to <name>.log, errors to <name>.err. Dies with the test.
    Child(const std::string &name, const std::vector<std::string> &command);
    Child(Child &&other) noexcept;
    Child &operator=(Child &&other) noexcept;
    ~Child(); // kills

    bool  running() const { return pid_ > 0; } // not waited for yet
    bool  ended() const;                       // has exited, waited for or not
    pid_t pid() const { return pid_; }
    void  signal(int number) const;
    int   wait(int limit_ms); // exit code, 128 + signal, or -1 when it still runs (and is killed)

    std::string output() const { return file_text(name_ + ".log"); }
    std::string errors() const { return file_text(name_ + ".err"); }

private:
    int exit_code_if_ended(); // -1 while it runs

    std::string name_;
    pid_t       pid_ = -1;
};

// Whether this comes sooner or later on standard output (prints) or standard error (says).
bool prints(const Child &child, const std::string &text);
bool says(const Child &child, const std::string &text);

} // namespace tarn::test

#endif
