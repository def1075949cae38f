// module.cpp - start and end of packet handling.
#include "../persist/persist.h"
#include "../qos/qos_reliable.h"
#include "../sub/sub.h"
#include "handler_internal.h"

using namespace tarn;

int packet_handler_init(void)
{
    if (sub_init() != 0) {
        LOG_FATAL("订阅管理器初始化失败");
        return -1;
    }
    if (qos_reliable_init() != 0) {
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
    qos_reliable_destroy();
    return persist_destroy();
}
