// console.h - standard output as a test sees it from inside: what is printed, and a hook that runs while a line is being
// printed, which is where another thread would come in between.
#ifndef TARN_TESTS_LOG_CONSOLE_H
#define TARN_TESTS_LOG_CONSOLE_H

#include <cstdio>
#include <functional>
#include <string>

namespace tarn::test {

class Console {
public:
    explicit Console(std::function<void()> while_printing = {}) : hook_(std::move(while_printing)), saved_(stdout)
    {
        stdout = fopencookie(this, "w", {nullptr, take, nullptr, nullptr});
        setvbuf(stdout, nullptr, _IONBF, 0);
    }
    ~Console()
    {
        fclose(stdout);
        stdout = saved_;
    }
    Console(const Console &)            = delete;
    Console &operator=(const Console &) = delete;

    std::string text;

private:
    static ssize_t take(void *self, const char *bytes, size_t count)
    {
        auto &console = *static_cast<Console *>(self);
        console.text.append(bytes, count);
        if (console.hook_)
            console.hook_();
        return static_cast<ssize_t>(count);
    }

    std::function<void()> hook_;
    FILE                 *saved_;
};

} // namespace tarn::test

#endif
