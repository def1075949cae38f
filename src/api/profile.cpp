// profile.cpp - which profile serves, and what the standard one may keep. Both are settings of the process, as the tables
// behind the API are.
#include "../base/mutex.h"
#include "../net/net.hpp"
#include "../persist/persist.h"
#include "../standard/standard.hpp"
#include "api_internal.h"

#include <cstdio>
#include <iterator>

using namespace tarn;

namespace {

constexpr uint32_t kMaxPacketSize = 10485760; // bytes, unless the host set another: as many as it may set

constinit Mutex                     g_mutex{};
constinit uint32_t g_profile        GUARDED_BY(g_mutex) = TARN_PROFILE_NATIVE;
constinit standard::Limits g_limits GUARDED_BY(g_mutex){.max_packet_size = kMaxPacketSize};

// A limit that a host may set, and what it may be.
struct Row {
    void (*set)(standard::Limits &limits, uint64_t value);
    uint64_t min, max;
};

template <auto member> void put(standard::Limits &limits, uint64_t value)
{
    auto &field = limits.*member;
    field       = static_cast<std::remove_reference_t<decltype(field)>>(value);
}

using standard::Limits;
constexpr uint64_t kMaxCount = UINT32_MAX;
constexpr uint64_t kMaxBytes = uint64_t{1} << 40;
constexpr Row      kRows[]   = {
           /* TARN_LIMIT_QUEUED_MESSAGES        */ {put<&Limits::queued_messages>, 1, kMaxCount},
    /* TARN_LIMIT_QUEUED_BYTES           */ {put<&Limits::queued_bytes>, 1, kMaxBytes},
    /* TARN_LIMIT_QOS0_MESSAGES          */ {put<&Limits::qos0_messages>, 1, kMaxCount},
    /* TARN_LIMIT_QOS0_BYTES             */ {put<&Limits::qos0_bytes>, 1, kMaxBytes},
    /* TARN_LIMIT_WILDCARD_SUBSCRIPTIONS */ {put<&Limits::wildcard_subscriptions>, 0, kMaxCount},
    /* TARN_LIMIT_SUBSCRIPTIONS          */ {put<&Limits::subscriptions>, 1, kMaxCount},
    /* TARN_LIMIT_RECEIVE_MAXIMUM        */ {put<&Limits::receive_maximum>, 1, UINT16_MAX},
    /* TARN_LIMIT_SESSION_EXPIRY         */ {put<&Limits::session_expiry_max_s>, 0, UINT32_MAX},
    /* TARN_LIMIT_SESSIONS               */ {put<&Limits::sessions>, 1, kMaxCount},
    /* TARN_LIMIT_RETAINED_MESSAGES      */ {put<&Limits::retained_messages>, 0, kMaxCount},
    /* TARN_LIMIT_RETAINED_BYTES         */ {put<&Limits::retained_bytes>, 0, kMaxBytes},
    /* TARN_LIMIT_CONNECT_TIMEOUT        */ {put<&Limits::connect_timeout_ms>, 100, 3'600'000},
};
static_assert(std::size(kRows) == TARN_LIMIT_CONNECT_TIMEOUT + 1);

bool serves(broker_t &broker)
{
    return shared(broker.running) || net::is_up();
}

} // namespace

int32_t tarn_sdk_mqtt_broker_set_profile(broker_t *broker, uint32_t profile)
{
    if (!api::is_instance(broker))
        return TARN_E_PARAM;
    if (serves(*broker)) {
        LOG_ERROR("[SDK] set_profile failed: broker is already running");
        return TARN_E_BUSY;
    }
    if (profile != TARN_PROFILE_NATIVE && profile != TARN_PROFILE_STANDARD)
        return TARN_E_PARAM;
    ScopedLock lock(g_mutex);
    g_profile = profile;
    return TARN_OK;
}

int32_t tarn_sdk_mqtt_broker_set_limit(broker_t *broker, uint32_t limit, uint64_t value)
{
    if (!api::is_instance(broker))
        return TARN_E_PARAM;
    if (serves(*broker)) {
        LOG_ERROR("[SDK] set_limit failed: broker is already running");
        return TARN_E_BUSY;
    }
    if (limit >= std::size(kRows) || value < kRows[limit].min || value > kRows[limit].max)
        return TARN_E_PARAM;
    ScopedLock lock(g_mutex);
    kRows[limit].set(g_limits, value);
    return TARN_OK;
}

bool api::standard_is_chosen() noexcept
{
    ScopedLock lock(g_mutex);
    return g_profile == TARN_PROFILE_STANDARD;
}

void api::limit_packets_of_standard(int32_t bytes) noexcept
{
    ScopedLock lock(g_mutex);
    g_limits.max_packet_size = static_cast<uint32_t>(bytes);
}

bool api::start_standard() noexcept
{
    char directory[PERSIST_PATH_SIZE + sizeof "/standard"];
    snprintf(directory, sizeof directory, "%s/standard", g_persist_root_path);
    standard::Limits limits;
    {
        ScopedLock lock(g_mutex);
        limits = g_limits;
    }
    return standard::start(directory, limits);
}
