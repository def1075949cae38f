// routes_rules.h - what sets the five routes of a message apart, as tables: who gets it and how, and every line.
#ifndef TARN_TESTS_ROUTES_RULES_H
#define TARN_TESTS_ROUTES_RULES_H

#include "routes_world.h"

namespace tarn::test::routes {

enum class Route { Publish, Host, Will, Broadcast, Test };

enum class Tracks { Nothing, Sent, Anyway }; // anyway: also what the ring refused, or only a larger buffer can hold
enum class Keeps { Nothing, AboveQos0, All };

struct Rules {
    const char *passed_by;      // the id that gets nothing, without a line
    int         draws;          // before those of the first receiver
    bool        draws_at_qos0;  // an identifier that nobody sees
    Tracks      tracks;         // until it is acknowledged
    bool        remembers_qos1; // in the receiver's record
    Keeps       keeps;          // for the absent who have a session
    const char *kept_counter;   // with each message kept
    bool        retains;        // puts it into the retained store, if it asks for that
    bool        retain, expiry; // as sent, in the deliveries
};
constexpr const char *kNoOne = "no one";
// clang-format off
constexpr Rules kRules[] = {
    //               passed_by  draws  at_qos0  tracks           qos1   keeps             kept_counter   retains retain expiry
    /* Publish   */ {"p",       0,     false,   Tracks::Sent,    true,  Keeps::All,       "offline_msg", true,   false, true},
    /* Host      */ {"",        2,     true,    Tracks::Anyway,  false, Keeps::AboveQos0, nullptr,       true,   true,  true},
    /* Will      */ {kNoOne,    1,     false,   Tracks::Nothing, true,  Keeps::Nothing,   nullptr,       false,  true,  false},
    /* Broadcast */ {kNoOne,    0,     false,   Tracks::Sent,    true,  Keeps::Nothing,   nullptr,       false,  true,  false},
    /* Test      */ {"",        0,     true,    Tracks::Sent,    true,  Keeps::Nothing,   nullptr,       false,  false, false},
};
// clang-format on

// ---- the lines, each in its place

enum class At {
    Received, // the packet
    TooLong,
    Begin,
    Payload,
    Limited, // the life of what waits under the same identifier
    Removed, // the retained message of the topic
    Replaced,
    Added,
    Encoded, // the will itself
    NotEncodable,
    Broadcast,
    Misread, // the topic, behind a remaining length of two bytes; the end
    Found,
    List,
    Match, // each of them
    Nobody,
    // a receiver
    PassedOver, // another one of its group was chosen
    NoId,
    Unknown,
    Parked,
    Online,
    NoPayload,
    NotEncoded,
    NotSent,
    Sent,
    NotKept,
    Kept,
    // the message again
    End,
    Answered,
    WillSent,
};

struct Says {
    const char *who; // of Publish, Host, Will, Broadcast, Test
    At          at;
    const char *level, *text;
};
constexpr Says kSays[] = {
    {"P", At::Received, "DEBUG", "收到MQTT报文：ClientID=p, 类型=3, 长度={size}"},
    {"P", At::TooLong, "WARN", "PUBLISH decode: payload length exceed max ({payload} > 2048), truncate to max"},
    {"P", At::Begin, "INFO",
     "MQTT标准：收到发布消息：ClientID=p, Topic={topic}, QoS={qos}, Retain={retain}, MsgID={msgid}"},
    {"W", At::Begin, "INFO", "[WILL] Send will message: client=p"},
    {"W", At::Begin, "INFO", "[WILL] Topic: {topic}, QoS: {qos}, Retain: {retain}, PayloadLen: {payload}"},
    {"W", At::Payload, "DEBUG", "[WILL] Payload"},
    {"P", At::Limited, "INFO", "[QoS/Expiry] 设置消息过期: msg_id={msgid}, 过期时间={expiry} 秒"},
    {"PH", At::Removed, "INFO", "MQTT标准：删除Topic={topic}的保留消息（空Payload）"},
    {"PH", At::Replaced, "INFO", "MQTT标准：更新Topic={topic}的保留消息"},
    {"PH", At::Added, "INFO", "MQTT标准：新增Topic={topic}的保留消息"},
    {"W", At::NotEncodable, "ERROR", "[WILL] 编码失败 | code={code} | len=4096"},
    {"W", At::Encoded, "INFO", "[WILL] 编码成功 | len={size} | 开始广播"},
    {"WB", At::Misread, "ERROR",
     "[遗嘱调试][广播失败] Topic越界：topic_len={misread}, msg_len={size}, 2+2+topic_len={behind} > msg_len"},
    {"WB", At::Broadcast, "INFO",
     "[遗嘱调试][广播开始] Topic={topic}, 原始QoS={qos}, 消息长度={size}, 开始匹配订阅者（上限=11000）"},
    {"T", At::Begin, "INFO", "MQTT标准：准备发布测试消息：Topic={topic}, Payload=[Hello from MQTT Broker!], QoS=1"},

    {"PHWBT", At::Found, "INFO", "MQTT标准：Topic={topic} 匹配到 {found} 个订阅者"},
    {"WB", At::Found, "INFO", "[遗嘱调试][订阅匹配] Topic={topic} 匹配到 {found} 个订阅者（上限=11000）"},
    {"T", At::Found, "INFO", "【订阅匹配】Topic={topic} 匹配到 {found} 个订阅者（上限=11000）"},
    {"P", At::Nobody, "DEBUG", "发布消息无匹配订阅者：Topic={topic}"},
    {"WB", At::Nobody, "DEBUG", "[遗嘱调试][广播完成] 无匹配订阅者，Topic={topic}"},
    {"T", At::Nobody, "DEBUG", "测试消息无匹配订阅者：Topic={topic}"},
    {"WB", At::List, "DEBUG", "[遗嘱调试][订阅者列表] 匹配到的{found}个订阅者："},
    {"WB", At::Match, "DEBUG", "[遗嘱调试][订阅者{n}] ClientID={id}, TopicFilter={filter}, 订阅QoS={granted}"},

    {"PWB", At::PassedOver, "DEBUG", "[共享订阅] 订阅者{n} 同组已负载均衡，跳过发送"},
    {"T", At::PassedOver, "DEBUG", "[共享订阅] 测试消息 订阅者{n} 跳过"},
    {"WB", At::NoId, "WARN", "[遗嘱调试][广播跳过] 订阅者{n}：ClientID为空"},
    {"WB", At::Unknown, "WARN", "[遗嘱调试][广播失败] 订阅者{n}：ClientID={id} 不存在"},
    {"T", At::Unknown, "WARN", "订阅者不存在：ClientID={id}"},
    {"W", At::Parked, "WARN", "[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：{id}"},
    {"B", At::Parked, "WARN", "[遗嘱调试][广播失败] 订阅者{n}：ClientID={id} 状态无效（3），需为LOGINED/CONNECTED"},
    {"T", At::Parked, "WARN", "订阅者状态无效：ClientID={id}, 状态=3"},
    {"P", At::Kept, "INFO", "[MQTT标准] 离线消息已存储：ClientID={id}, Topic={topic}"},
    {"H", At::Kept, "INFO", "[STANDARD] APP发布离线消息已存储: {id}, Topic={topic}"},
    {"H", At::NotKept, "INFO", "[MQTT标准] QoS=0 离线消息不存储：ClientID={id}, Topic={topic}"},
    {"WB", At::Online, "DEBUG",
     "[遗嘱调试][QoS降级] 订阅者{n}：原始QoS={qos} → 订阅QoS={granted} → 最终投递QoS={least}"},
    {"WB", At::NoPayload, "ERROR",
     "[遗嘱调试][广播失败] 订阅者{n}：Payload解析失败（start={start}, len={left}, msg_len={size}）"},
    {"WB", At::NotEncoded, "ERROR", "[遗嘱调试][广播失败] 订阅者{n}：To={id}, 编码失败（错误码={code}）"},
    {"T", At::NotEncoded, "ERROR", "编码测试消息失败：To={id}, 错误码={code}"},
    {"WB", At::NotSent, "ERROR", "[遗嘱调试][广播失败] 订阅者{n}：To={id}, 发送返回值=-1"},
    {"T", At::NotSent, "ERROR", "转发测试消息失败：To={id}, 发送返回值=-1"},
    {"P", At::Sent, "INFO", "转发消息成功：To={id}, Topic={topic}, QoS={least}"},
    {"WB", At::Sent, "INFO", "[遗嘱调试][广播成功] 订阅者{n}：To={id}, Topic={topic},最终投递QoS={least}（已降级）"},
    {"T", At::Sent, "INFO", "转发测试消息成功：To={id}, Topic={topic}, QoS={least}（标准降级后）"},

    {"P", At::End, "INFO", "MQTT标准：消息转发完成：匹配{found}个订阅者，成功发送{sent}个"},
    {"WB", At::End, "INFO",
     "[遗嘱调试][广播完成] Topic={topic}, 总计匹配{found}个订阅者，成功发送{sent}个，失败{failed}个"},
    {"T", At::End, "INFO", "测试消息转发完成：总计匹配{found}个订阅者，成功发送{sent}个"},
    {"P", At::Answered, "INFO", "发送{answer}成功：ClientID=p, MsgID={msgid}"},
    {"W", At::WillSent, "INFO", "[WILL] 广播完成 | will_sent=1"},
};

} // namespace tarn::test::routes

#endif
