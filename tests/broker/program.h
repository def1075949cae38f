// program.h - tarn-broker as a child of the test.
#ifndef TARN_TESTS_BROKER_PROGRAM_H
#define TARN_TESTS_BROKER_PROGRAM_H

#include "support/child.h"
#include "support/timing.h"

#include <csignal>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

// Each run writes to files of its own, so that one never reads what the run before had said.
inline Child run(std::vector<std::string> arguments = {})
{
    static int runs = 0;
    arguments.insert(arguments.begin(), TARN_BROKER_PROGRAM);
    return {"broker" + std::to_string(++runs), arguments};
}

inline bool serves(const Child &broker)
{
    return says(broker, "tarn-broker: serving ");
}

inline testing::AssertionResult ends_well(Child &broker)
{
    broker.signal(SIGTERM);
    if (const int status = broker.wait(kLimit_ms); status != 0)
        return testing::AssertionFailure() << "it ended with " << status << "\n" << broker.errors();
    return testing::AssertionSuccess();
}

// What one says that cannot serve.
inline std::string mistake_of(Child broker)
{
    EXPECT_EQ(broker.wait(kLimit_ms), 1);
    return broker.errors();
}

// A command that comes to its end by itself.
struct Result {
    int         status;
    std::string output, errors;
    bool        operator==(const Result &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Result &result)
{
    return out << result.status << " " << result.output << " " << result.errors;
}
inline Result result_of(Child child)
{
    const int status = child.wait(kLimit_ms);
    return {status, child.output(), child.errors()};
}

} // namespace tarn::test

#endif
