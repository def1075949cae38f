// module.cpp - start and end of packet handling.
#include "../persist/persist.hpp"
#include "../qos/qos.hpp"
#include "../sub/sub.hpp"
#include "handler_internal.h"

namespace tarn::handler {

bool init() noexcept
{
    if (!sub::init()) {
        LOG_FATAL("订阅管理器初始化失败");
        return false;
    }
    if (!qos::init()) {
        LOG_ERROR("QoS可靠投递模块初始化失败");
        return false;
    }
    begin_hello_period();
    LOG_INFO("报文处理器初始化成功（符合MQTT 3.1.1标准）");
    return true;
}

// The identifier generator's lock outlives this: other threads may still be drawing.
void deinit() noexcept
{
    qos::destroy();
    persist::destroy();
}

} // namespace tarn::handler
