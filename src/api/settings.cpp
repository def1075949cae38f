// settings.cpp - what a host sets before start, and the constant texts.
#include "api_internal.h"

using namespace tarn;
using api::is_instance;

int32_t tarn_sdk_mqtt_broker_set_log_level(broker_t * /*unused*/, uint32_t level)
{
    log::set_level(level);
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_set_keepalive_timeout(broker_t *broker, int32_t seconds)
{
    if (!is_instance(broker))
        return TARN_E_PARAM;
    if (shared(broker->running)) {
        LOG_ERROR("[SDK] set_keepalive_timeout failed: broker is already running");
        return TARN_E_BUSY;
    }
    if (seconds < 1 || seconds > 3600)
        return TARN_E_PARAM;
    shared(broker->keepalive_timeout) = seconds;
    LOG_INFO("[SDK] set keepalive timeout = %d sec", seconds);
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_set_max_packet_size(broker_t *broker, int32_t bytes)
{
    if (!is_instance(broker))
        return TARN_E_PARAM;
    if (shared(broker->running)) {
        LOG_ERROR("[SDK] set_max_packet_size failed: broker is already running");
        return TARN_E_BUSY;
    }
    if (bytes < 256 || bytes > 10485760)
        return TARN_E_PARAM;
    shared(broker->max_packet_size) = bytes;
    api::limit_packets_of_standard(bytes);
    return TARN_OK;
}

const char *tarn_sdk_mqtt_broker_version(void)
{
    return "V2.0.0";
}

const char *tarn_sdk_mqtt_broker_error_str(int32_t code)
{
    static constexpr const char *kTexts[] = {
        "OK",        "Init failed", "Invalid parameter",      "Resource error", "Not running",
        "Not found", "Denied",      "Busy (already running)", "Timeout",
    };
    return code <= 0 && code >= TARN_E_TIMEOUT ? kTexts[-code] : "Unknown error";
}
