// routes_oracle.h - what has to be seen when a message takes a route, worked out from the rules alone: nothing here
// calls the library. One function a route; each tells the whole story at DEBUG, and a test at a higher level drops the
// lines below it.
#ifndef TARN_TESTS_ROUTES_ORACLE_H
#define TARN_TESTS_ROUTES_ORACLE_H

#include "routes_world.h"

#include <set>

namespace tarn::test::routes {

enum class Route { Publish, Host, Will, Broadcast, Test };

// ---- the wire

// Topic and payload together that a delivery has room for; an expiry interval takes 5 bytes of it at level 5.
constexpr size_t room_for(unsigned level, unsigned qos, uint32_t expiry_s)
{
    constexpr size_t kRoom[2][2] = {{2043, 2041}, {2042, 2040}};
    return kRoom[level - 4][qos > 0] - (level == 5 && expiry_s ? 5 : 0);
}

struct Encoded {
    int         code = 0;
    Bytes       bytes;
    std::string complaint; // of the encoder
};

inline Encoded encode(unsigned level, unsigned qos, bool retain, const std::string &topic, unsigned id,
                      uint32_t expiry_s, const Bytes &payload, size_t capacity = 2048)
{
    if (qos > 0 && id == 0)
        return {-1, {}, "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n"};
    Bytes body = prefixed(topic);
    if (qos > 0)
        body = body + u16(id);
    if (level == 5)
        body = body + (expiry_s ? wire("05 02") + u16(expiry_s >> 16) + u16(expiry_s & 0xFFFF) : wire("00"));
    body = body + payload;
    if (body.size() > 2112)
        return {-3,
                {},
                print("[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=%zu, have=2112)\n", body.size())};
    const Bytes whole = packet(static_cast<uint8_t>(0x30 | qos << 1 | (retain ? 1 : 0)), body);
    if (whole.size() > capacity)
        return {-3,
                {},
                print("[PUBLISH ENCODE] Step 6 ERROR: Final buffer overflow (need=%zu, have=%zu)\n", whole.size(),
                      capacity)};
    return {0, whole, ""};
}

// A PUBLISH as its sender writes it.
inline Bytes written(const World &world)
{
    const Sending &message = world.message;
    Bytes          body    = prefixed(message.topic);
    if (message.qos > 0)
        body = body + u16(kPublishId);
    if (world.sender_level == 5)
        body = body + (message.expiry_s ? wire("05 02") + u16(message.expiry_s >> 16) + u16(message.expiry_s & 0xFFFF)
                                        : wire("00"));
    return packet(static_cast<uint8_t>(0x30 | (message.dup ? 8 : 0) | message.qos << 1 | (message.retain ? 1 : 0)),
                  body + message.payload);
}

// ---- the words of every story

class Story {
protected:
    struct Pending {
        std::string id;
        unsigned    level, msg_id, qos;
        std::string topic;
        Bytes       payload;
        uint32_t    expiry_s;
    };
    struct Match {
        int           number; // from 1
        const Member &member;
    };

    const World                       &world_;
    Sending                            message_;
    uint32_t                           seed_;
    Seen                               seen_;
    std::vector<Match>                 matches_;
    std::set<const Member *>           chosen_; // one of each shared group
    std::map<std::string, Strings>     packets_;
    std::map<std::string, int>         counters_;
    std::deque<Pending>                pending_;
    std::map<std::string, std::string> files_;
    std::vector<Kept>                  store_;
    std::map<std::string, std::string> records_;

    explicit Story(const World &world)
        : world_(world), message_(world.message), seed_(world.seed), files_(world.files), store_(world.kept)
    {
        if (world.sender_awaits_7)
            pending_.push_front({kSender, world.sender_level, kPublishId, 1, "other", text("o"), 0});
    }

    // ---- small words

    void say(LogLine line) { seen_.lines.push_back(std::move(line)); }
    void count(const char *name, int by = 1) { counters_[name] += by; }
    void count_both(const std::string &name, int by = 1)
    {
        counters_[(name == "will" ? "will_sent" : name == "rx" || name == "tx" ? "pkt_" + name : name)] += by;
        counters_["period_" + name] += by;
    }
    void send(const std::string &id, const Bytes &bytes)
    {
        packets_[id].push_back(id + ": " + brief(bytes));
        count_both("tx");
    }
    bool send(const Member &to, const Bytes &bytes)
    {
        if (to.hindrance == Hindrance::None)
            send(to.id, bytes);
        else
            count_both(to.hindrance == Hindrance::RingFull ? "drop_queue_full" : "drop_too_big");
        return to.hindrance == Hindrance::None;
    }

    unsigned draw() // one draw of the generator
    {
        seen_.draws++;
        return static_cast<unsigned>(rand_r(&seed_)) % 65533 + 1;
    }
    unsigned draw_id() // a delivery's identifier
    {
        const unsigned a = draw();
        const unsigned b = draw();
        return (b >> 8 & 0xFF) * 256 + (a & 0xFF);
    }

    // The name of a shared group, with the slash behind it, and what stands behind that.
    static bool is_shared(const Member &member)
    {
        return member.filter.starts_with("$share/") && member.filter.find('/', 7) != std::string::npos;
    }
    static std::string behind_share(const Member &member) { return member.filter.substr(7); }
    static std::string group_of(const Member &member)
    {
        return behind_share(member).substr(0, behind_share(member).find('/'));
    }
    static bool     is_online(const Member &member) { return member.presence == Presence::Online; }
    static unsigned smaller(unsigned left, unsigned right) { return left < right ? left : right; }

    // ---- what every route does first

    // Filters here are plain topics, "+" and "#".
    bool fits(const Member &member, const std::string &topic)
    {
        const std::string filter =
            is_shared(member) ? behind_share(member).substr(group_of(member).size() + 1) : member.filter;
        if (filter == "#")
            return true; // without a line
        if (filter == "+")
            say(debug("[TRACE] topic_match_wildcard：匹配+通配符，跳过当前层级"));
        const size_t slash = topic.find('/');
        const bool   found = filter == "+" ? slash == std::string::npos : filter == topic;
        if (filter == "+" && !found)
            say(debug(print("[DEBUG] topic_match_wildcard：未完全匹配（filter剩余=, topic剩余=%s）",
                            topic.substr(slash + 1).c_str())));
        say(debug(print("[DEBUG] topic_match_wildcard：匹配结果（filter=%s, topic=%s, match=%d）", filter.c_str(),
                        topic.c_str(), found)));
        return found;
    }

    void match(const std::string &topic)
    {
        say(debug(print("[DEBUG] sub_match：开始匹配订阅（topic=%s, max_matched=11000）", topic.c_str())));
        say(debug(print("[TRACE] sub_match：已加锁，当前订阅数=%zu", world_.members.size())));
        for (size_t at = 0; at < world_.members.size(); at++) {
            const Member &member = world_.members[at];
            say(debug(print("[TRACE] sub_match：检查订阅（索引=%zu, client_id=%s, topic_filter=%s）", at,
                            member.id.c_str(), member.filter.c_str())));
            if (!fits(member, topic))
                continue;
            say(debug(print("[TRACE] sub_match：匹配成功（索引=%zu, client_id=%s）", at, member.id.c_str())));
            matches_.push_back({static_cast<int>(matches_.size()) + 1, member});
        }
        say(debug(print("[DEBUG] sub_match：匹配完成（topic=%s, 匹配数量=%zu）", topic.c_str(), matches_.size())));
        say(info(print("MQTT标准：Topic=%s 匹配到 %zu 个订阅者", topic.c_str(), matches_.size())));
    }

    // A step of the counter for each group, in the order in which they appear; the member at counter mod members, and
    // whoever is in a group whose name begins with this group's name is a member of this one, too.
    void choose()
    {
        std::set<std::string> done;
        auto                  turn = static_cast<uint32_t>(world_.turn);
        for (const Match &first : matches_) {
            if (!is_shared(first.member) || !done.insert(group_of(first.member)).second)
                continue;
            std::vector<const Member *> members;
            for (const Match &match : matches_)
                if (is_shared(match.member) && behind_share(match.member).starts_with(group_of(first.member)))
                    members.push_back(&match.member);
            chosen_.insert(members[turn++ % members.size()]);
            seen_.turns++;
        }
    }
    bool passed_over(const Match &match) const { return is_shared(match.member) && !chosen_.count(&match.member); }

    void track(const Member &to, unsigned id, unsigned qos, const Bytes &payload)
    {
        if (payload.empty()) {
            say(error("[QoS] 添加报文参数错误：payload为空"));
            return;
        }
        pending_.push_front({to.id, to.level, id, qos, message_.topic, payload, 0});
        say(debug(print("[QoS] 添加QoS%u报文到队列成功(msg_id=%u, client=%s, 载荷长度=%zu)", qos, id, to.id.c_str(),
                        payload.size())));
    }
    void note_qos1(const Member &to, unsigned id)
    {
        if (id)
            records_[to.id + ".qos1_pending"] = print("=%u", id);
    }

    // ---- the retained store

    void save_retained()
    {
        count_both("persist_write");
        say(debug(print("[persist] retain saved: %zu entries", store_.size())));
    }
    void retain()
    {
        const char *const topic = message_.topic.c_str();
        const auto at = std::find_if(store_.begin(), store_.end(), [&](auto &kept) { return kept.topic == topic; });
        say(debug(print("[DEBUG] retain_msg_set：开始处理（topic=%s, payload_len=%zu, qos=%u）", topic,
                        message_.payload.size(), message_.qos)));
        say(debug(print("[TRACE] retain_msg_set：已加锁，当前保留消息数量=%zu", store_.size())));
        if (at != store_.end() && message_.payload.empty()) {
            say(debug(print("[DEBUG] retain_msg_set：空Payload，删除旧保留消息（topic=%s）", topic)));
            store_.erase(at);
            save_retained();
            say(info(print("MQTT标准：删除Topic=%s的保留消息（空Payload）", topic)));
        } else if (at != store_.end()) {
            at->payload = message_.payload;
            at->qos     = message_.qos;
            save_retained();
            say(info(print("MQTT标准：更新Topic=%s的保留消息", topic)));
        } else if (!message_.payload.empty()) {
            store_.push_back({topic, message_.qos, 0, message_.payload});
            save_retained();
            say(info(print("MQTT标准：新增Topic=%s的保留消息", topic)));
        }
        if (message_.expiry_s) {
            for (Kept &kept : store_)
                if (kept.topic == topic)
                    kept.expiry_s = message_.expiry_s;
            save_retained();
        }
    }

    // ---- absent subscribers

    // Reads the client's files, as often as it is called; true when there is a session to keep a message in.
    bool load(const Member &member)
    {
        if (member.id.empty())
            return false;
        const std::string name       = "/" + member.id + ".json";
        const bool        session    = files_.count("session" + name);
        const bool        subscribed = files_.count("subscription" + name);
        const bool        messages   = files_.count("message" + name);
        count_both("persist_read", session + messages);
        if (subscribed)
            say(info(print("[persist] ✅ 恢复订阅成功: %s 共 %zu 条", member.id.c_str(),
                           occurrences("\"topic\":", files_["subscription" + name]))));
        if (!messages)
            say(debug(
                print("[persist][定位] 无离线消息文件：%s/message/%s.json", g_persist_root_path, member.id.c_str())));
        return member.remembered || session || subscribed || messages;
    }
    static size_t occurrences(const std::string &what, const std::string &text)
    {
        size_t count = 0;
        for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size())
            count++;
        return count;
    }
    void store_message(const Member &member, unsigned qos)
    {
        load(member);
        std::string bytes; // at most 1024
        for (size_t at = 0; at < message_.payload.size() && at < 1024; at++)
            bytes += print("%02x", message_.payload[at]);
        files_["message/" + member.id + ".json"] =
            print(R"({"msgs":[{"msgid":N,"qos":%u,"topic":"%s","payload":"%s"}]})", qos, message_.topic.c_str(),
                  bytes.c_str());
        count_both("persist_write");
    }

    // ---- the end of the story

    Seen finish()
    {
        for (const auto &[id, packets] : packets_)
            seen_.packets.insert(seen_.packets.end(), packets.begin(), packets.end());
        for (const auto &[name, by] : counters_)
            if (by)
                seen_.counters.push_back(print("%s+%d", name.c_str(), by));
        for (const auto &[path, content] : files_)
            seen_.files.push_back(path + " " + content);
        for (const auto &[name, value] : records_)
            seen_.records.push_back(name + value);
        for (const Kept &kept : store_)
            seen_.retained.push_back(retained_text(kept.topic, kept.qos, kept.expiry_s, kept.payload));
        scan();
        return seen_;
    }

    // What is not acknowledged goes out a second later, newest first and with DUP 0.
    void scan()
    {
        std::map<std::string, Strings> repeated;
        int                            count = 0;
        const auto                     line  = [&](LogLine said) { seen_.scan_lines.push_back(std::move(said)); };
        for (const Pending &entry : pending_) {
            seen_.pending.push_back(pending_now(entry));
            const Encoded out = encode(entry.level, entry.qos, false, entry.topic, entry.msg_id, 0, entry.payload,
                                       entry.payload.size() + 266);
            line(debug(print("[QoS_SEND] msg_id=%u, client=%s", entry.msg_id, entry.id.c_str())));
            if (has_limit(entry.id)) {
                line(error(print("[QoS] 重发报文失败(msg_id=%u)：发送错误（返回码：-1）", entry.msg_id)));
                continue;
            }
            repeated[entry.id].push_back(entry.id + ": " + brief(out.bytes));
            line(info(print("[QoS] 重发QoS%u报文成功(msg_id=%u)，重试次数=1，下次间隔=2000ms，载荷长度=%zu", entry.qos,
                            entry.msg_id, entry.payload.size())));
            count++;
        }
        if (count)
            line(debug(print("[QoS] 队列扫描完成：重发%d条，丢弃0条", count)));
        for (const auto &[id, packets] : repeated)
            seen_.repeated.insert(seen_.repeated.end(), packets.begin(), packets.end());
    }
    bool has_limit(const std::string &id) const
    {
        return std::any_of(world_.members.begin(), world_.members.end(), [&](const Member &member) {
            return member.id == id && member.hindrance == Hindrance::Limit4;
        });
    }
    static std::string pending_now(const Pending &entry)
    {
        return print("%s id=%u qos=%u topic=%s payload=%s dup=0 tries=0 next=1000ms state=%d expiry=%u age=0/0ms",
                     entry.id.c_str(), entry.msg_id, entry.qos, entry.topic.c_str(), brief(entry.payload).c_str(),
                     entry.qos == 2 ? 1 : 0, entry.expiry_s);
    }
};

// ---- one message on one route

class Oracle : Story {
public:
    explicit Oracle(const World &world) : Story(world) {}

    Seen expect(Route route)
    {
        switch (route) {
        case Route::Publish:
            client_publish();
            break;
        case Route::Host:
            seen_.result = host_publish();
            break;
        case Route::Will:
            seen_.result = will();
            break;
        case Route::Broadcast:
            broadcast(written(world_), false);
            break;
        case Route::Test:
            test_message();
        }
        return finish();
    }

private:
    // ---- a client publishes

    void client_publish()
    {
        const Bytes packet = written(world_);
        count_both("rx");
        say(debug(print("收到MQTT报文：ClientID=p, 类型=3, 长度=%zu", packet.size())));
        unsigned level = world_.sender_level;
        if (level == 4 && !message_.payload.empty() && message_.payload[0] == 0) {
            level = 5; // what begins like an empty property block is taken for one
            message_.payload.erase(message_.payload.begin());
        }
        if (level == 4)
            message_.expiry_s = 0;
        for (Pending &entry : pending_)
            if (entry.id == kSender)
                entry.level = level; // what is repeated to it from now on is in that level, too
        cut_decoded_payload();
        count(print("qos%u", message_.qos).c_str());
        say(info(print("MQTT标准：收到发布消息：ClientID=p, Topic=%s, QoS=%u, Retain=%d, MsgID=%u",
                       message_.topic.c_str(), message_.qos, message_.retain, message_.qos ? kPublishId : 0)));
        seen_.told = {print("acl p %s 1", message_.topic.c_str()),
                      print(R"(2 {"clientId":"p","topic":"%s","qos":%u})", message_.topic.c_str(), message_.qos)};
        if (message_.qos > 0 && message_.expiry_s > 0)
            limit_pending();
        if (message_.retain)
            retain();
        match(message_.topic);
        if (matches_.empty())
            say(debug(print("发布消息无匹配订阅者：Topic=%s", message_.topic.c_str())));
        else
            publish_to_matches();
        acknowledge(level);
    }
    void cut_decoded_payload()
    {
        if (message_.payload.size() <= 2048)
            return;
        say(warn(
            print("PUBLISH decode: payload length exceed max (%zu > 2048), truncate to max", message_.payload.size())));
        message_.payload.resize(2048);
    }
    void limit_pending()
    {
        for (Pending &entry : pending_)
            if (entry.id == kSender && entry.msg_id == kPublishId) {
                entry.expiry_s = message_.expiry_s;
                say(info(print("[QoS/Expiry] 设置消息过期: msg_id=%u, 过期时间=%u 秒", kPublishId, message_.expiry_s)));
                return;
            }
    }
    void publish_to_matches()
    {
        choose();
        int successes = 0;
        for (const Match &match : matches_) {
            const Member  &to  = match.member;
            const unsigned qos = smaller(message_.qos, to.granted);
            if (to.id == kSender)
                continue;
            if (passed_over(match)) {
                say(debug(print("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", match.number)));
            } else if (is_online(to)) {
                const unsigned id = qos ? draw_id() : 0;
                const Encoded  out =
                    encode(to.level, qos, false, message_.topic, id, message_.expiry_s, message_.payload);
                if (out.code) {
                    say(error(out.complaint));
                    continue;
                }
                if (!send(to, out.bytes))
                    continue;
                say(info(print("转发消息成功：To=%s, Topic=%s, QoS=%u", to.id.c_str(), message_.topic.c_str(), qos)));
                if (qos)
                    track(to, id, qos, message_.payload);
                if (qos == 1)
                    note_qos1(to, id);
                successes++;
            } else if (load(to) && !message_.payload.empty()) {
                store_message(to, qos);
                say(info(
                    print("[MQTT标准] 离线消息已存储：ClientID=%s, Topic=%s", to.id.c_str(), message_.topic.c_str())));
                count("offline_msg");
            }
        }
        say(info(print("MQTT标准：消息转发完成：匹配%zu个订阅者，成功发送%d个", matches_.size(), successes)));
    }
    void acknowledge(unsigned level)
    {
        if (message_.qos == 0)
            return;
        if (message_.qos == 2)
            records_["p.qos2_pending"] = print("=%u", kPublishId);
        send(kSender, packet(message_.qos == 1 ? 0x40 : 0x50, u16(kPublishId) + (level == 5 ? wire("00") : Bytes{})));
        say(info(print("发送%s成功：ClientID=p, MsgID=%u", message_.qos == 1 ? "PUBACK" : "PUBREC", kPublishId)));
    }

    // ---- the host publishes

    int host_publish()
    {
        if (message_.payload.empty())
            return -1;
        if (message_.payload.size() > 2048)
            message_.payload.resize(2048);
        draw_id(); // the template's
        if (message_.retain)
            retain();
        match(message_.topic);
        choose();
        for (const Match &match : matches_) {
            const Member  &to  = match.member;
            const unsigned qos = smaller(message_.qos, to.granted);
            if (to.id.empty() || passed_over(match))
                continue;
            if (is_online(to))
                deliver_for_host(to, qos);
            else if (load(to))
                keep_for_host(to, qos);
        }
        return 0;
    }
    void deliver_for_host(const Member &to, unsigned qos)
    {
        const unsigned id = draw_id();
        const Encoded  out =
            encode(to.level, qos, message_.retain, message_.topic, id, message_.expiry_s, message_.payload);
        // What more room than 2048 bytes would have held is tracked, and delivered by the scan.
        const Encoded roomy =
            encode(to.level, qos, message_.retain, message_.topic, id, message_.expiry_s, message_.payload, 4096);
        if (out.code)
            say(error(out.complaint));
        else
            (void)send(to, out.bytes);
        if (qos && roomy.code == 0)
            track(to, id, qos, message_.payload);
    }
    void keep_for_host(const Member &to, unsigned qos)
    {
        if (qos == 0) {
            say(info(print("[MQTT标准] QoS=0 离线消息不存储：ClientID=%s, Topic=%s", to.id.c_str(),
                           message_.topic.c_str())));
            return;
        }
        store_message(to, qos);
        say(info(print("[STANDARD] APP发布离线消息已存储: %s, Topic=%s", to.id.c_str(), message_.topic.c_str())));
    }

    // ---- a will, and any other PUBLISH that is encoded already

    int will()
    {
        const Sending &will = message_;
        if (will.payload.size() > 2048) // refused when it was to be set: there is none
            return -1;
        const uint32_t expiry_s = will.expiry_s;
        say(info("[WILL] Send will message: client=p"));
        say(info(print("[WILL] Topic: %s, QoS: %u, Retain: %d, PayloadLen: %zu", will.topic.c_str(), will.qos,
                       will.retain, will.payload.size())));
        if (!will.payload.empty())
            say(debug("[WILL] Payload"));
        const unsigned id = draw();
        const Encoded  out =
            encode(world_.sender_level, will.qos, will.retain, will.topic, id, expiry_s, will.payload, 4096);
        if (out.code) {
            say(error(out.complaint));
            say(error(print("[WILL] 编码失败 | code=%d | len=4096", out.code)));
            return -1;
        }
        say(info(print("[WILL] 编码成功 | len=%zu | 开始广播", out.bytes.size())));
        broadcast(out.bytes, true);
        count_both("will");
        seen_.told              = {print(R"(5 {"clientId":"p","topic":"%s","qos":%u})", will.topic.c_str(), will.qos)};
        records_["p.will_sent"] = "";
        say(info("[WILL] 广播完成 | will_sent=1"));
        if (!world_.sender_is_clean) {
            files_["subscription/p.json"] = R"({"subs":[{"topic":"saved","qos":1}]})";
            count_both("persist_write");
        }
        return 0;
    }

    void broadcast(const Bytes &packet, bool is_will)
    {
        const size_t topic_len = packet[2] * 256u + packet[3]; // as if the remaining length had one byte
        if (topic_len + 4 > packet.size()) {
            say(error(print("[遗嘱调试][广播失败] Topic越界：topic_len=%zu, msg_len=%zu, 2+2+topic_len=%zu > msg_len",
                            topic_len, packet.size(), topic_len + 4)));
            return;
        }
        const std::string topic(packet.begin() + 4, packet.begin() + 4 + static_cast<long>(topic_len));
        const unsigned    qos    = packet[0] >> 1 & 3;
        const bool        retain = packet[0] & 1;
        say(info(print("[遗嘱调试][广播开始] Topic=%s, 原始QoS=%u, 消息长度=%zu, 开始匹配订阅者（上限=11000）",
                       topic.c_str(), qos, packet.size())));
        match(topic);
        say(info(
            print("[遗嘱调试][订阅匹配] Topic=%s 匹配到 %zu 个订阅者（上限=11000）", topic.c_str(), matches_.size())));
        if (matches_.empty()) {
            say(debug(print("[遗嘱调试][广播完成] 无匹配订阅者，Topic=%s", topic.c_str())));
            return;
        }
        say(debug(print("[遗嘱调试][订阅者列表] 匹配到的%zu个订阅者：", matches_.size())));
        for (const Match &match : matches_)
            say(debug(print("[遗嘱调试][订阅者%d] ClientID=%s, TopicFilter=%s, 订阅QoS=%u", match.number,
                            match.member.id.c_str(), match.member.filter.c_str(), match.member.granted)));
        choose();
        size_t successes = 0;
        for (const Match &match : matches_)
            successes += broadcast_to(match, packet, topic, topic_len + (qos ? 6 : 4), qos, retain, is_will);
        say(info(print("[遗嘱调试][广播完成] Topic=%s, 总计匹配%zu个订阅者，成功发送%zu个，失败%zu个", topic.c_str(),
                       matches_.size(), successes, matches_.size() - successes)));
    }
    bool broadcast_to(const Match &match, const Bytes &packet, const std::string &topic, size_t start,
                      unsigned message_qos, bool retain, bool is_will)
    {
        const Member     &to = match.member;
        const char *const id = to.id.c_str();
        if (passed_over(match)) {
            say(debug(print("[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", match.number)));
            return false;
        }
        if (to.id.empty()) {
            say(warn(print("[遗嘱调试][广播跳过] 订阅者%d：ClientID为空", match.number)));
            return false;
        }
        if (to.presence == Presence::Unknown) {
            say(warn(print("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 不存在", match.number, id)));
            return false;
        }
        if (to.presence == Presence::Parked) {
            say(warn(is_will ? print("[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：%s", id)
                             : print("[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 状态无效（3），需为LOGINED/CONNECTED",
                                     match.number, id)));
            return false;
        }
        const unsigned qos = smaller(message_qos, to.granted);
        say(debug(print("[遗嘱调试][QoS降级] 订阅者%d：原始QoS=%u → 订阅QoS=%u → 最终投递QoS=%u", match.number,
                        message_qos, to.granted, qos)));
        if (to.level == 5)
            start += 1u + (start < packet.size() ? packet[start] : 0u);
        if (start >= packet.size()) {
            say(error(print("[遗嘱调试][广播失败] 订阅者%d：Payload解析失败（start=%zu, len=%d, msg_len=%zu）",
                            match.number, start, static_cast<int>(packet.size()) - static_cast<int>(start),
                            packet.size())));
            return false;
        }
        const Bytes    payload(packet.begin() + static_cast<long>(start), packet.end());
        const unsigned msg_id = qos ? draw_id() : 0;
        const Encoded  out    = encode(to.level, qos, retain, topic, msg_id, 0, payload);
        if (out.code) {
            say(error(out.complaint));
            say(error(
                print("[遗嘱调试][广播失败] 订阅者%d：To=%s, 编码失败（错误码=%d）", match.number, id, out.code)));
            return false;
        }
        if (!send(to, out.bytes)) {
            say(error(print("[遗嘱调试][广播失败] 订阅者%d：To=%s, 发送返回值=-1", match.number, id)));
            return false;
        }
        say(info(print("[遗嘱调试][广播成功] 订阅者%d：To=%s, Topic=%s,最终投递QoS=%u（已降级）", match.number, id,
                       topic.c_str(), qos)));
        if (qos && !is_will)
            track(to, msg_id, qos, payload);
        if (qos == 1)
            note_qos1(to, msg_id);
        return true;
    }

    // ---- the test message

    void test_message()
    {
        message_.payload = text("Hello from MQTT Broker!");
        say(info("MQTT标准：准备发布测试消息：Topic=broker/test, Payload=[Hello from MQTT Broker!], QoS=1"));
        match("broker/test");
        choose();
        say(info(print("【订阅匹配】Topic=broker/test 匹配到 %zu 个订阅者（上限=11000）", matches_.size())));
        if (matches_.empty()) {
            say(debug("测试消息无匹配订阅者：Topic=broker/test"));
            return;
        }
        int successes = 0;
        for (const Match &match : matches_) {
            const Member     &to  = match.member;
            const char *const id  = to.id.c_str();
            const unsigned    qos = to.granted ? 1 : 0;
            if (to.id.empty())
                continue;
            if (passed_over(match)) {
                say(debug(print("[共享订阅] 测试消息 订阅者%d 跳过", match.number)));
                continue;
            }
            if (!is_online(to)) {
                say(warn(to.presence == Presence::Unknown ? print("订阅者不存在：ClientID=%s", id)
                                                          : print("订阅者状态无效：ClientID=%s, 状态=3", id)));
                continue;
            }
            const unsigned msg_id = draw_id(); // at QoS 0 too
            const Encoded  out    = encode(to.level, qos, false, "broker/test", msg_id, 0, message_.payload);
            if (out.code) {
                say(error(out.complaint));
                say(error(print("编码测试消息失败：To=%s, 错误码=%d", id, out.code)));
                continue;
            }
            if (!send(to, out.bytes)) {
                say(error(print("转发测试消息失败：To=%s, 发送返回值=-1", id)));
                continue;
            }
            say(info(print("转发测试消息成功：To=%s, Topic=broker/test, QoS=%u（标准降级后）", id, qos)));
            if (qos) {
                track(to, msg_id, 1, message_.payload);
                note_qos1(to, msg_id);
            }
            successes++;
        }
        say(info(print("测试消息转发完成：总计匹配%zu个订阅者，成功发送%d个", matches_.size(), successes)));
    }
};

} // namespace tarn::test::routes

#endif
