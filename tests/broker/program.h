// program.h - tarn-broker as a child of the test.
#ifndef TARN_TESTS_BROKER_PROGRAM_H
#define TARN_TESTS_BROKER_PROGRAM_H

#include "support/child.h"
#include "support/timing.h"

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

// Says this on standard error, sooner or later.
inline bool says(const Child &broker, const std::string &text)
{
    return wait_until([&] { return broker.errors().find(text) != std::string::npos || broker.ended(); }) &&
           broker.errors().find(text) != std::string::npos;
}

inline bool serves(const Child &broker)
{
    return says(broker, "tarn-broker: serving ");
}

} // namespace tarn::test

#endif
