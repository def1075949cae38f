// The stock JavaScript client at level 5 (scripts in npm/, packages fetched by the test wire.npm.install).
#include "support/child.h"
#include "support/host.h"
#include "support/timing.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

void run(const std::string &name)
{
    const std::string modules = TARN_NPM_DIRECTORY "/node_modules";
    if (!std::filesystem::exists(modules + "/mqtt/package.json"))
        GTEST_SKIP() << "no package mqtt in " << modules;
    Host host; // its identifiers are known to be other than 0 and, close together, of each other
    tarn_sdk_mqtt_broker_set_log_level(host.broker(), 3);
    Child script("script", {"env", "NODE_PATH=" + modules, "node", TARN_NPM_SCRIPTS "/" + name});
    EXPECT_EQ(script.wait(30000 * kSlowdown), 0) << script.errors();
    printf("%s", script.output().c_str());
}

} // namespace

TEST(npm, mqtt_at_level_5)
{
    run("level5.js");
}

TEST(npm, many_messages_at_qos_1_and_2)
{
    run("many.js");
}

TEST(npm, retained_messages_at_qos_1_and_2)
{
    run("retained.js");
}

TEST(npm, wills_put_off_called_off_and_shared)
{
    run("wills.js");
}

TEST(npm, three_in_a_shared_group)
{
    run("shared.js");
}
