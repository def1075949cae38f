// The stock JavaScript client at level 5 (npm/level5.js, packages fetched by the test wire.npm.install).
#include "support/broker_process.h"
#include "support/peer.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tarn::test;

TEST(npm, mqtt_at_level_5)
{
    const std::string modules = TARN_NPM_DIRECTORY "/node_modules";
    if (!std::filesystem::exists(modules + "/mqtt/package.json"))
        GTEST_SKIP() << "no package mqtt in " << modules;
    BrokerProcess broker = BrokerProcess::start();
    Child         script("script", {"env", "NODE_PATH=" + modules, "node", TARN_NPM_SCRIPT});
    EXPECT_EQ(script.wait(30000 * kSlowdown), 0) << script.errors();
    printf("%s", script.output().c_str());
}
