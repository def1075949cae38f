// The last stretch of a message for somebody who is away: kept in a file, read back when its receiver returns, sent by
// the scan about a second later. All that a CONNECT with a saved session makes of it, against the rules alone.
#include "routes_run.h"

using namespace tarn;
using namespace tarn::test;
using namespace tarn::test::routes;

namespace {

struct Stored {
    unsigned    msgid, qos;
    std::string topic;
    std::string payload; // in hex, as the file has it
};

std::string hex_pairs(const Bytes &bytes)
{
    std::string out;
    for (uint8_t byte : bytes)
        out += print("%02x", byte);
    return out;
}
Bytes bytes_of(const std::string &pairs)
{
    Bytes out;
    for (size_t at = 0; at + 1 < pairs.size(); at += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(pairs.substr(at, 2), nullptr, 16)));
    return out;
}

// ---- the message file, by its rules

std::string object_of(const Stored &message, bool show_id)
{
    return print(R"({"msgid":%s,"qos":%u,"topic":"%s","payload":"%s"})",
                 show_id ? std::to_string(message.msgid).c_str() : "N", message.qos, message.topic.c_str(),
                 message.payload.c_str());
}
std::string file_of(const std::vector<Stored> &messages, bool show_ids)
{
    std::string text;
    for (const Stored &message : messages)
        text += (text.empty() ? "" : ",") + object_of(message, show_ids);
    return R"({"msgs":[)" + text + "]}";
}

// 4095 bytes of the file are read, and 1023 of each message: a payload that does not end there comes back empty.
std::vector<Stored> read_back(const std::vector<Stored> &messages)
{
    std::vector<Stored> found;
    size_t              at = std::string(R"({"msgs":[)").size();
    for (Stored message : messages) {
        message.payload   = message.payload.substr(0, 2 * 1024);
        const size_t size = object_of(message, true).size();
        if (at + size > 4095)
            break;
        at += size + 1;
        if (size - 1 > 1023) // the closing brace is not needed
            message.payload.clear();
        found.push_back(message);
    }
    return found;
}

// Each message kept is added to what can be read back of those before it.
std::vector<Stored> kept_one_by_one(const std::vector<Stored> &messages)
{
    std::vector<Stored> file;
    for (Stored message : messages) {
        file            = read_back(file);
        message.payload = message.payload.substr(0, 2 * 1024);
        file.push_back(message);
    }
    return file;
}

// ---- the return of "r"

class Resume : Story {
public:
    Resume(const World &world, const std::vector<Stored> &file) : Story(world), file_(file) {}

    Seen expect(size_t packet_size)
    {
        const Member             &r        = world_.members[1];
        const std::vector<Stored> messages = read_back(file_);
        count("pkt_rx", "period_rx");
        say(debug(print("收到MQTT报文：ClientID=, 类型=1, 长度=%zu", packet_size)));
        say(debug("client_set_keepalive: handle=0x00002710, cid=, keepalive=60秒（超时阈值=90秒）"));
        say(debug("Set client ID: handle=10000, cid=r"));
        if (r.level == 5) {
            say(info("[MQTT5] Session Expiry Interval negotiated: client=r, value=0 (0x11)"));
            say(info("[MQTT5] Maximum Packet Size negotiated: client=r, value=4096 (valid)"));
        } else {
            say(debug("[MQTT3] Session Expiry Interval not supported, set to 0"));
            say(info("[MQTT3] Maximum Packet Size not supported, use default=4096, client=r"));
        }
        load(r);
        say(info(print("[会话] 加载客户端持久化数据成功: r, 订阅数=1, 离线消息数=%zu", messages.size())));
        subscribe_again(r);
        say(info("[会话] 客户端 r 上下文恢复完成"));
        say(info("[WILL-MQTT5] client=r 取消遗嘱延迟"));
        if (r.level == 5)
            say(info("[MQTT5] CONNACK properties: max_packet_size=4096, session_expiry_interval=0"));
        send("r", r.level == 5 ? wire("20 0B 01 00 08 21 00 00 27 00 00 10 00") : wire("20 02 01 00"));
        say(info("CONNACK -> r (SessionPresent=1)"));
        replay(r);
        restore(r, messages);
        seen_.told = {R"(0 {"clientId":"r","topic":"","qos":0})"};
        return finish();
    }

private:
    std::vector<Stored> file_;

    void subscribe_again(const Member &r)
    {
        say(info(print("MQTT标准：更新订阅：ClientID=r, Topic=t, QoS=%u", r.granted)));
        say(info(print("[恢复] 订阅: t QoS=%u → 内存订阅表", r.granted)));
    }
    void replay(const Member &r)
    {
        for (const Kept &kept : store_)
            if (fits(r.filter, kept.topic)) {
                send("r", written(r.level, {kept.topic, kept.payload, kept.qos, true}, draw_id()));
                say(info(print("[保留消息] 下发成功: Client=r, Topic=%s, Filter=t", kept.topic.c_str())));
            }
    }
    // As if sent once already: the scan sends them, QoS 0 and what came back without a payload is lost.
    void restore(const Member &r, const std::vector<Stored> &messages)
    {
        load(r);
        if (messages.empty()) {
            say(debug("[packet_handler] 无离线消息需要补发: r"));
            return;
        }
        say(info(print("[packet_handler] 开始补发离线消息: r 共 %zu 条", messages.size())));
        for (const Stored &message : messages) {
            unsigned id = message.msgid;
            if (id == 0) {
                id = draw();
                say(debug(print("[packet_handler] 修复离线消息 MsgID=0 → 新 MsgID=%u", id)));
            }
            const Bytes payload = bytes_of(message.payload);
            if (message.qos == 0 && !payload.empty())
                say(error("[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前0）"));
            else
                track(r, id, {message.topic, payload, message.qos});
            say(debug(
                print("[packet_handler] 已补发: msgid=%u topic=%s qos=%u", id, message.topic.c_str(), message.qos)));
        }
        write_file("message/r.json", R"({"msgs":[]})");
        say(info("[packet_handler] 离线消息补发完成: r，已清空离线消息"));
    }
};

struct Missed { // one message sent while "r" is away
    Route    route;
    unsigned qos;
    Bytes    payload;
};

// What is kept of it, and nothing of an empty one or, from the host, of one at QoS 0.
std::vector<Stored> kept_of(const std::vector<Missed> &missed, unsigned granted, bool first_without_id)
{
    std::vector<Stored> all;
    for (const Missed &message : missed) {
        const unsigned qos = std::min(message.qos, granted);
        if (!message.payload.empty() && (message.route == Route::Publish || qos > 0))
            all.push_back({first_without_id && all.empty() ? 0 : 101 + static_cast<unsigned>(all.size()), qos, "t",
                           hex_pairs(message.payload)});
    }
    return kept_one_by_one(all);
}

World world_for(unsigned level, unsigned granted, unsigned retained_qos)
{
    World world;
    world.members                      = {{"n", "u", 2}, {"r", "t", granted, level, Presence::Unknown, true}};
    world.kept                         = {{"u", 2, 0, text("not for r")}, {"t", retained_qos, 60, text("kept")}};
    world.files["subscription/r.json"] = print(R"({"subs":[{"topic":"t","qos":%u}]})", granted);
    return world;
}

// All of it: the messages go out while "r" is away, the file is looked at, "r" returns.
std::string miss_and_return(Stage &stage, const World &away, const std::vector<Missed> &missed, bool first_without_id)
{
    const Member             &r     = away.members[1];
    const std::vector<Stored> kept  = kept_of(missed, r.granted, first_without_id);
    World                     world = away;
    std::string               unlike; // what the rules say is in the file
    if (!kept.empty())
        world.files["message/r.json"] = file_of(kept, true);
    const Bytes packet   = r.level == 5 ? connect_v5("r", wire("27 00 00 10 00"), 0x00) : connect_v4("r", 0x00);
    const Seen  expected = Resume(world, kept).expect(packet.size());

    const std::string wrong = run(stage, away, expected, [&](Scene &scene, uint32_t log) {
        for (const Missed &message : missed) {
            World one   = away;
            one.message = {"t", message.payload, message.qos};
            (void)act(scene, message.route, one);
        }
        scene.sender().gets(); // acknowledgements
        scene.sender()->qos2_pending_msg_id = 0;
        const std::string file              = stored("message", "r");
        if (const std::string rule = kept.empty() ? "" : file_of(kept, false); without_msgids(file) != rule)
            unlike = "\n  kept file: expected " + rule + "\n             seen     " + file;
        if (!kept.empty())
            store("message", "r", file_of(kept, true)); // its identifiers are random
        Client &newcomer = scene.newcomer("r");
        return scene.see(log, [&](Scene &) { return newcomer.sends(packet); });
    });
    return unlike + wrong;
}

} // namespace

TEST(routes_resume, what_was_missed_comes_a_second_after_the_connack)
{
    struct {
        const char *name;
        Bytes       bytes;
    } const payloads[] = {{"empty", {}},
                          {"1 byte", repeat(0xFF, 1)},
                          {"480 bytes", repeat(0xFF, 480)},
                          {"500 bytes, too many to be read back", repeat(0xFF, 500)},
                          {"2048 bytes", repeat(0xFF, 2048)},
                          {"2049 bytes", repeat(0xFF, 2049)}};
    Stage stage;
    for (Route route : {Route::Publish, Route::Host})
        for (unsigned level : {4u, 5u})
            for (unsigned qos : {0u, 1u, 2u})
                for (unsigned granted : {0u, 1u, 2u})
                    for (const auto &[name, bytes] : payloads)
                        for (bool more : {false, true}) {
                            std::vector<Missed> missed = {{route, qos, bytes}};
                            if (more) {
                                missed.push_back({Route::Publish, 2, wire("FF 32")});
                                missed.push_back({Route::Host, 1, text("3rd")});
                            }
                            stage.report(
                                print("%s, QoS %u to QoS %u, level %u, payload: %s%s",
                                      route == Route::Publish ? "client PUBLISH" : "host publish", qos, granted, level,
                                      name, more ? ", two more behind it" : ""),
                                miss_and_return(stage, world_for(level, granted, qos), missed, (qos + level) % 2));
                        }
}
