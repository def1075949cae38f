// module.cpp - start and end of packet handling.
#include "../persist/persist.hpp"
#include "../qos/qos.hpp"
#include "../sub/sub.hpp"
#include "handler_internal.h"

using namespace tarn;

int packet_handler_init(void)
{
    if (!sub::init()) {
        LOG_FATAL("订阅管理器初始化失败");
        return -1;
    }
    if (!qos::init()) {
        LOG_ERROR("QoS可靠投递模块初始化失败");
        return -1;
    }
    handler::begin_hello_period();
    LOG_INFO("报文处理器初始化成功（符合MQTT 3.1.1标准）");
    return 0;
}

// The identifier generator's lock outlives this: other threads may still be drawing.
int packet_handler_deinit(void)
{
    qos::destroy();
    persist::destroy();
    return 0;
}
