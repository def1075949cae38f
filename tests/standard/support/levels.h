// levels.h - tests that hold for both versions: each is run with clients at 3.1.1 and at 5.0.
#ifndef TARN_TESTS_STANDARD_LEVELS_H
#define TARN_TESTS_STANDARD_LEVELS_H

#include "broker.h"
#include "client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarn::conformance {

struct AtEachLevel : testing::TestWithParam<unsigned> {
    Broker broker;

    unsigned level() const { return GetParam(); }
    bool     is_5() const { return level() == 5; }
    Client   come(std::string_view id, const Connect &options = {}, Where where = Where::here()) const
    {
        return {level(), id, options, where};
    }
    // A session that outlives its connection.
    Client come_to_stay(std::string_view id, Connect options = {}, Where where = Where::here()) const
    {
        options.clean = false;
        if (is_5())
            options.properties = options.properties + property(SessionExpiry, 3600);
        return {level(), id, options, where};
    }
    Client open(Where where = Where::here()) const { return Client::open(level(), where); }
};

// What only 5.0 has.
struct At5 : testing::Test {
    Broker broker;

    static Client come(std::string_view id, const Connect &options = {}, Where where = Where::here())
    {
        return {5, id, options, where};
    }
    static Client come_to_stay(std::string_view id, Connect options = {}, Where where = Where::here())
    {
        options.clean      = false;
        options.properties = options.properties + property(SessionExpiry, 3600);
        return {5, id, options, where};
    }
    static Client open(Where where = Where::here()) { return Client::open(5, where); }
};

inline std::string name_of_level(const testing::TestParamInfo<unsigned> &info)
{
    return info.param == 5 ? "at_5_0" : "at_3_1_1";
}

#define AT_EACH_LEVEL(suite) INSTANTIATE_TEST_SUITE_P(, suite, testing::Values(4u, 5u), name_of_level)

} // namespace tarn::conformance

#endif
