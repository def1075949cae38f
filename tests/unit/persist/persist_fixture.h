// persist_fixture.h - a data directory of its own, and files as texts.
#ifndef TARN_TESTS_PERSIST_FIXTURE_H
#define TARN_TESTS_PERSIST_FIXTURE_H

#include "persist/persist.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/log_capture.h"

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace tarn::test {

inline std::string read_text(const std::string &path)
{
    std::ifstream     in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return in ? text.str() : "(no file)";
}

struct DataDirectory : testing::Test {
    std::unique_ptr<persist_session_t> record{new persist_session_t{}};

    DataDirectory()
    {
        LogCapture quiet(4);
        sub_init();
        persist_init("data");
        strcpy(record->client_id, "dev1");
    }
    persist_session_t &load(const char *id = "dev1")
    {
        memset(record.get(), 0, sizeof *record);
        strcpy(record->client_id, id);
        EXPECT_EQ(persist_load(record.get()), 0);
        return *record;
    }
    void subscribe(const char *topic, uint8_t qos)
    {
        persist_sub_t &sub = record->subs[record->sub_count++];
        strcpy(sub.topic, topic);
        sub.qos = qos;
    }
};

inline const uint8_t *bytes(const char *text)
{
    return reinterpret_cast<const uint8_t *>(text);
}

} // namespace tarn::test

#endif
