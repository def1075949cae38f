#include "handler_fixture.h"
#include "support/log_lines/handler.h"
#include "support/log_lines/persist.h"

using namespace tarn;
using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;

TEST(module, starts_tables_queue_and_the_period_of_the_test_message)
{
    ManualClock clock;
    LogCapture  log(AGENT_LOG_INFO);
    EXPECT_EQ(packet_handler_init(), 0);
    EXPECT_EQ(log.take().back(), info("报文处理器初始化成功（符合MQTT 3.1.1标准）"));
    EXPECT_NE(g_sub_mgr.subs, nullptr);
    EXPECT_EQ(g_scan_running, 1);
    clock.advance_ms(9000);
    packet_handler_publish_test_msg();
    EXPECT_EQ(log.count(logged::hello_started("broker/test", "Hello from MQTT Broker!", 1)), 0);
    clock.advance_ms(1000);
    packet_handler_publish_test_msg();
    EXPECT_EQ(log.count(logged::hello_started("broker/test", "Hello from MQTT Broker!", 1)), 1);
    EXPECT_EQ(packet_handler_deinit(), 0);
    EXPECT_EQ(g_scan_running, 0);
    EXPECT_EQ(log.take().back(), logged::persist_ends());
}

TEST(module, without_memory_for_the_tables)
{
    LogCapture log(AGENT_LOG_ERROR);
    Fail       fail(Call::Allocate, 1);
    EXPECT_EQ(packet_handler_init(), -1);
    EXPECT_EQ(log.take().back(), fatal("订阅管理器初始化失败"));
}

TEST(module, without_a_scan_thread)
{
    LogCapture log(AGENT_LOG_ERROR);
    Fail       fail(Call::ThreadCreate, 1, EAGAIN);
    EXPECT_EQ(packet_handler_init(), -1);
    EXPECT_EQ(log.take().back(), error("QoS可靠投递模块初始化失败"));
}

TEST(module, identifiers_can_be_drawn_after_its_end)
{
    Handling broker;
    EXPECT_EQ(packet_handler_init(), 0);
    EXPECT_EQ(packet_handler_deinit(), 0);
    const uint32_t seed = msgid_seed;
    (void)handler::draw_packet_id();
    EXPECT_NE(msgid_seed, seed);
}
