// test_message.cpp - the broker's test message, for hosts that want one; at most one in ten seconds.
#include "../base/clock.h"
#include "routing.h"

#include <cerrno>

namespace tarn::handler {
namespace {

constexpr std::string_view kTopic    = "broker/test";
constexpr std::string_view kPayload  = "Hello from MQTT Broker!";
constexpr int64_t          kPeriod_s = 10;

constinit int64_t last_test_pub_time = 0; // wall s

struct TestPath : BasicPath {
    static constexpr bool kDrawsAtQos0 = true;

    using BasicPath::BasicPath;

    bool passes_over(const Receiver &to) { return to.route.client_id[0] == '\0'; }
    void not_chosen(const Receiver &to) { LOG_DEBUG("[共享订阅] 测试消息 订阅者%d 跳过", to.number); }
    void absent(const Receiver &to, const mqtt_client_t *client, uint32_t state)
    {
        if (!client)
            LOG_WARN("订阅者不存在：ClientID=%s", to.route.client_id);
        else
            LOG_WARN("订阅者状态无效：ClientID=%s, 状态=%d", to.route.client_id, static_cast<int>(state));
    }
    void no_memory(const Receiver &) { LOG_ERROR("forward_buf malloc failed: %d", errno); }
    void not_encoded(const Receiver &to, int code)
    {
        LOG_ERROR("编码测试消息失败：To=%s, 错误码=%d", to.route.client_id, code);
    }
    void not_sent(const Receiver &to, uint32_t result)
    {
        LOG_ERROR("转发测试消息失败：To=%s, 发送返回值=%d", to.route.client_id, static_cast<int>(result));
    }
    void sent(const Receiver &to)
    {
        LOG_INFO("转发测试消息成功：To=%s, Topic=%s, QoS=%d（标准降级后）", to.route.client_id, message.topic_text(),
                 static_cast<int>(qos_to(to)));
    }
};

// True when the period is over; the next one then begins.
bool due(int64_t now_s)
{
    const int64_t last_s = peek(last_test_pub_time);
    return now_s - last_s >= kPeriod_s && swap_if(last_test_pub_time, last_s, now_s);
}

} // namespace

void begin_test_period() noexcept
{
    poke(last_test_pub_time, wall_s());
}

} // namespace tarn::handler

using namespace tarn;
using namespace tarn::handler;

void packet_handler_publish_test_msg(void)
{
    if (!due(wall_s()))
        return;

    Message message;
    message.topic   = kTopic;
    message.payload = {reinterpret_cast<const uint8_t *>(kPayload.data()), kPayload.size()};
    message.qos     = 1;
    LOG_INFO("MQTT标准：准备发布测试消息：Topic=%s, Payload=[%s], QoS=%d", kTopic.data(), kPayload.data(), 1);

    Matches matches;
    if (!matches.find(kTopic.data())) {
        LOG_ERROR("matched_subs malloc failed: %d", errno);
        return;
    }
    if (!matches.choose()) {
        LOG_ERROR("selected_shared malloc failed: %d", errno);
        return;
    }
    LOG_INFO("【订阅匹配】Topic=%s 匹配到 %d 个订阅者（上限=%d）", kTopic.data(), matches.count(), SUB_MATCH_CAPACITY);
    if (matches.count() == 0) {
        LOG_DEBUG("测试消息无匹配订阅者：Topic=%s", kTopic.data());
        return;
    }
    TestPath  path(message);
    const int sent = fan_out(matches, path);
    LOG_INFO("测试消息转发完成：总计匹配%d个订阅者，成功发送%d个", matches.count(), sent);
}
