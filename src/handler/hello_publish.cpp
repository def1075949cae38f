// hello_publish.cpp - the broker's own message, a hello for hosts to see that messages travel; at most one in ten
// seconds.
#include "../base/clock.h"
#include "routing.h"

#include <cerrno>

namespace tarn::handler {
namespace {

constexpr std::string_view kTopic    = "broker/test";
constexpr std::string_view kPayload  = "Hello from MQTT Broker!";
constexpr int64_t          kPeriod_s = 10;

constinit Shared<int64_t> last_hello_s = 0; // wall s

void log_offline(const Receiver &receiver)
{
    if (!receiver.client)
        LOG_WARN("订阅者不存在：ClientID=%s", receiver.id());
    else
        LOG_WARN("订阅者状态无效：ClientID=%s, 状态=%d", receiver.id(), static_cast<int>(receiver.state));
}

void on_outcome(Routing &routing, Outcome outcome) noexcept
{
    const Receiver &receiver = routing.receiver;
    const char     *topic    = routing.message.topic_text();
    const int       matched  = routing.matches.count();
    switch (outcome) {
    case Outcome::NoMatchMemory:
        LOG_ERROR("matched_subs malloc failed: %d", errno);
        break;
    case Outcome::NoChoiceMemory:
        LOG_ERROR("selected_shared malloc failed: %d", errno);
        break;
    case Outcome::Matched:
        LOG_INFO("【订阅匹配】Topic=%s 匹配到 %d 个订阅者（上限=%d）", topic, matched, SUB_MATCH_CAPACITY);
        break;
    case Outcome::Unmatched:
        LOG_DEBUG("测试消息无匹配订阅者：Topic=%s", topic);
        break;
    case Outcome::NotChosen:
        LOG_DEBUG("[共享订阅] 测试消息 订阅者%d 跳过", receiver.number);
        break;
    case Outcome::Offline:
        log_offline(receiver);
        break;
    case Outcome::NoMemory:
        LOG_ERROR("forward_buf malloc failed: %d", errno);
        break;
    case Outcome::NotEncoded:
        LOG_ERROR("编码测试消息失败：To=%s, 错误码=%d", receiver.id(), receiver.result);
        break;
    case Outcome::NotSent:
        LOG_ERROR("转发测试消息失败：To=%s, 发送返回值=%d", receiver.id(), receiver.result);
        break;
    case Outcome::Sent:
        LOG_INFO("转发测试消息成功：To=%s, Topic=%s, QoS=%d（标准降级后）", receiver.id(), topic, receiver.shown_qos());
        break;
    case Outcome::Routed:
        LOG_INFO("测试消息转发完成：总计匹配%d个订阅者，成功发送%d个", matched, routing.sent);
        break;
    case Outcome::Online:
    case Outcome::NoPayload:
        break;
    }
}

constexpr Rules kRules{.on_outcome         = on_outcome,
                       .tracking           = Tracking::Queued,
                       .remembers_qos1     = true,
                       .draws_at_qos0      = true,
                       .chooses_first      = true,
                       .payload_by_version = false};

// True when the period is over; the next one then begins.
bool due(int64_t now_s)
{
    const int64_t last_s = last_hello_s;
    return now_s - last_s >= kPeriod_s && swap_if(last_hello_s, last_s, now_s);
}

} // namespace

void begin_hello_period() noexcept
{
    last_hello_s = wall_s();
}

void publish_hello() noexcept
{
    if (!due(wall_s()))
        return;

    Message message;
    message.topic   = kTopic;
    message.payload = {reinterpret_cast<const uint8_t *>(kPayload.data()), kPayload.size()};
    message.qos     = 1;
    LOG_INFO("MQTT标准：准备发布测试消息：Topic=%s, Payload=[%s], QoS=%d", kTopic.data(), kPayload.data(), 1);

    Routing routing(kRules, message);
    routing.excluded = "";
    (void)route(routing, kTopic.data());
}

} // namespace tarn::handler
