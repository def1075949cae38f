// promise.h - what a fuzzer holds the library to, beyond what the sanitizers see.
#ifndef TARN_FUZZ_PROMISE_H
#define TARN_FUZZ_PROMISE_H

#include "log/agent_log.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#define PROMISE(condition)                                                                                             \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition);                                    \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)

namespace tarn::fuzz {

// Every line is formatted, because formats read what the input chose, and none is printed.
inline void format_all_lines()
{
    g_log_config.level  = AGENT_LOG_DEBUG;
    g_log_config.output = 0;
}

template <size_t N> bool terminated(const char (&text)[N])
{
    return memchr(text, 0, N) != nullptr;
}

} // namespace tarn::fuzz

#endif
