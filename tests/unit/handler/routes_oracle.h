// routes_oracle.h - what has to be seen when a message takes a route, told along the tables of routes_rules.h: nothing
// here calls the library. The whole story is told at DEBUG; a test at a higher level drops the lines below it.
#ifndef TARN_TESTS_ROUTES_ORACLE_H
#define TARN_TESTS_ROUTES_ORACLE_H

#include "routes_rules.h"
#include "support/log_lines/codec.h"
#include "support/log_lines/persist.h"
#include "support/log_lines/qos.h"

namespace tarn::test::routes {

// ---- the wire

// Topic and payload together that a delivery has room for; an expiry interval takes 5 bytes of it at level 5.
constexpr size_t room_for(unsigned level, unsigned qos, uint32_t expiry_s)
{
    constexpr size_t kRoom[2][2] = {{2043, 2041}, {2042, 2040}};
    return kRoom[level - 4][qos > 0] - (level == 5 && expiry_s ? 5 : 0);
}

inline Bytes body_of(unsigned level, const Sending &is, unsigned id)
{
    Bytes properties;
    if (level == 5)
        properties = is.expiry_s ? wire("05 02") + u16(is.expiry_s >> 16) + u16(is.expiry_s & 0xFFFF) : wire("00");
    return prefixed(is.topic) + (is.qos ? u16(id) : Bytes{}) + properties + is.payload;
}
inline Bytes written(unsigned level, const Sending &is, unsigned id)
{
    return packet(static_cast<uint8_t>(0x30 | is.dup << 3 | is.qos << 1 | (is.retain ? 1 : 0)), body_of(level, is, id));
}

struct Encoded {
    int     code = 0;
    Bytes   bytes;
    LogLine complaint; // of the encoder
};
inline Encoded encode(unsigned level, const Sending &message, unsigned id, size_t capacity = 2048)
{
    if (message.qos > 0 && id == 0)
        return {-1, {}, logged::publish_encode_no_packet_id()};
    const size_t body  = body_of(level, message, id).size();
    const Bytes  whole = written(level, message, id);
    if (body > 2112)
        return {-3, {}, logged::publish_encode_payload_overflow(body)};
    if (whole.size() > capacity)
        return {-3, {}, logged::publish_encode_overflow(whole.size(), capacity)};
    return {0, whole, {}};
}

// Filters here are plain topics, also of a shared group, "+" and "#".
inline bool fits(const std::string &filter, const std::string &topic)
{
    return filter == "#" || filter == topic || filter.ends_with("/" + topic) ||
           (filter == "+" && topic.find('/') == topic.npos);
}

// ---- the words of every story

class Story {
protected:
    struct Pending {
        Member   to;
        unsigned id;
        Sending  message;
    };

    const World                       &world_;
    uint32_t                           seed_;
    Seen                               seen_;
    std::map<std::string, Strings>     packets_, repeated_;
    std::map<std::string, int>         counters_;
    std::deque<Pending>                pending_;
    std::map<std::string, std::string> files_, records_;
    std::vector<Kept>                  store_;

    explicit Story(const World &world) : world_(world), seed_(world.seed), files_(world.files), store_(world.kept)
    {
        if (world.sender_awaits_7)
            pending_.push_front({{kSender, "", 0, world.sender_level}, kPublishId, {"other", text("o"), 1}});
    }

    void say(LogLine line) { seen_.lines.push_back(std::move(line)); }
    void count(const std::string &total, const std::string &period, int by = 1)
    {
        counters_[total] += by;
        counters_[period] += by;
    }
    bool send(const std::string &id, const Bytes &bytes, Hindrance hindrance = Hindrance::None)
    {
        if (hindrance == Hindrance::RingFull)
            count("drop_queue_full", "period_drop_queue_full");
        else if (hindrance == Hindrance::Limit4)
            count("drop_too_big", "period_drop_too_big");
        else
            count("pkt_tx", "period_tx"), packets_[id].push_back(id + ": " + brief(bytes));
        return hindrance == Hindrance::None;
    }
    unsigned draw() // one draw of the generator
    {
        seen_.draws++;
        return static_cast<unsigned>(rand_r(&seed_)) % 65533 + 1;
    }
    unsigned draw_id() // a delivery's identifier
    {
        const unsigned low = draw() & 0xFF;
        return (draw() >> 8 & 0xFF) * 256 + low;
    }
    void track(const Member &to, unsigned id, const Sending &message)
    {
        if (message.payload.empty())
            return say(logged::delivery_without_payload());
        pending_.push_front({to, id, {message.topic, message.payload, message.qos}});
        say(logged::delivery_added(message.qos, id, to.id, message.payload.size()));
    }

    void write_file(const std::string &path, const std::string &content)
    {
        files_[path] = content;
        count("persist_write", "period_persist_write");
    }
    // A client's files are read; true when there is a session to keep a message in.
    bool load(const Member &member)
    {
        if (member.id.empty())
            return false;
        const auto has  = [&](const char *kind) { return files_.count(kind + ("/" + member.id) + ".json"); };
        const auto read = static_cast<int>(has("session") + has("message"));
        count("persist_read", "period_persist_read", read);
        if (has("subscription"))
            say(logged::subscriptions_restored(member.id, files_["subscription/" + member.id + ".json"].find("topic") !=
                                                              std::string::npos));
        return member.remembered || read || has("subscription");
    }

    Seen finish()
    {
        for (const auto &[to, id, message] : pending_) { // goes out a second later, newest first
            seen_.pending.push_back(
                printed("%s id=%u qos=%u topic=%s payload=%s dup=0 tries=0 next=1000ms state=%d expiry=%u age=0/0ms",
                        to.id.c_str(), id, message.qos, message.topic.c_str(), brief(message.payload).c_str(),
                        message.qos == 2, message.expiry_s));
            if (to.hindrance != Hindrance::Limit4)
                repeated_[to.id].push_back(to.id + ": " +
                                           brief(written(to.level, {message.topic, message.payload, message.qos}, id)));
        }
        for (const auto &[id, each] : packets_)
            seen_.packets.insert(seen_.packets.end(), each.begin(), each.end());
        for (const auto &[id, each] : repeated_)
            seen_.repeated.insert(seen_.repeated.end(), each.begin(), each.end());
        for (const auto &[name, by] : counters_)
            if (by)
                seen_.counters.push_back(printed("%s+%d", name.c_str(), by));
        for (const auto &[path, content] : files_)
            seen_.files.push_back(path + " " + content);
        for (const Kept &kept : store_)
            seen_.retained.push_back(retained_text(kept.topic, kept.qos, kept.expiry_s, kept.payload));
        for (const auto &[name, value] : records_)
            seen_.records.push_back(name + value);
        return seen_;
    }
};

// ---- one message on one route

class Oracle : Story {
public:
    Oracle(const World &world, Route route)
        : Story(world), route_(route), rules_(kRules[static_cast<int>(route)]), message_(world.message),
          level_(world.sender_level), packet_(written(level_, message_, kPublishId))
    {
    }

    Seen expect()
    {
        if (!set_out()) {
            seen_.result = -1;
            return finish();
        }
        deliver();
        if (route_ == Route::Publish && message_.qos)
            acknowledge();
        if (route_ == Route::Will)
            end_will();
        return finish();
    }

private:
    const Route  route_;
    const Rules &rules_;
    Sending      message_;
    unsigned     level_;  // of the sender
    Bytes        packet_; // as the sender wrote it
    Words        words_;
    int          found_ = 0, sent_ = 0;

    bool is_will_or_broadcast() const { return route_ == Route::Will || route_ == Route::Broadcast; }

    void tell(At at)
    {
        words_.topic = message_.topic, words_.qos = message_.qos, words_.retain = message_.retain;
        words_.payload = message_.payload.size(), words_.expiry = message_.expiry_s, words_.size = packet_.size();
        words_.msgid = message_.qos ? static_cast<int>(kPublishId) : 0, words_.found = found_, words_.sent = sent_;
        words_.failed = found_ - sent_;
        for (const Says &says : kSays)
            if (says.at == at && strchr(says.who, "PHWBT"[static_cast<int>(route_)]))
                say(says.line(words_));
    }
    // ---- what comes before the receivers; false where it ends there

    bool set_out()
    {
        if (route_ == Route::Publish)
            receive();
        if (route_ == Route::Host)
            message_.payload.resize(std::min<size_t>(message_.payload.size(), 2048));
        if (route_ == Route::Test)
            message_ = {"broker/test", text("Hello from MQTT Broker!"), 1};
        if (route_ == Route::Host ? message_.payload.empty()
                                  : route_ == Route::Will && message_.payload.size() > 2048) // then there is none
            return false;
        tell(At::Begin);
        if (!message_.payload.empty())
            tell(At::Payload);
        if (!pending_.empty() && pending_.front().message.expiry_s)
            tell(At::Limited);
        unsigned id = 0;
        for (int n = 0; n < rules_.draws; n++)
            id = draw();
        if (rules_.retains && message_.retain)
            retain();
        if (route_ != Route::Will)
            return true;
        const Encoded out = encode(level_, message_, id, 4096);
        packet_           = out.bytes;
        words_.code       = out.code;
        if (out.code)
            say(out.complaint);
        tell(out.code ? At::NotEncodable : At::Encoded);
        return out.code == 0;
    }
    void receive()
    {
        count("pkt_rx", "period_rx");
        counters_[printed("qos%u", message_.qos)]++;
        tell(At::Received);
        if (level_ == 4 && !message_.payload.empty() && message_.payload[0] == 0) {
            level_ = 5; // what begins like an empty property block is taken for one
            message_.payload.erase(message_.payload.begin());
        }
        if (level_ == 4)
            message_.expiry_s = 0;
        if (message_.payload.size() > 2048) {
            tell(At::TooLong);
            message_.payload.resize(2048);
        }
        seen_.told = {printed("acl p %s 1", message_.topic.c_str()),
                      printed(R"(2 {"clientId":"p","topic":"%s","qos":%u})", message_.topic.c_str(), message_.qos)};
        for (Pending &entry : pending_) {
            entry.to.level = level_;
            if (message_.qos)
                entry.message.expiry_s = message_.expiry_s; // it has the same identifier
        }
    }
    void retain()
    {
        const auto at    = std::ranges::find(store_, message_.topic, &Kept::topic);
        const bool there = at != store_.end(), empty = message_.payload.empty();
        if (there && empty)
            store_.erase(at);
        else if (there)
            *at = {message_.topic, message_.qos, at->expiry_s, message_.payload};
        else if (!empty)
            store_.push_back({message_.topic, message_.qos, 0, message_.payload});
        if (there || !empty)
            tell(!there ? At::Added : empty ? At::Removed : At::Replaced);
        for (Kept &kept : store_)
            if (kept.topic == message_.topic && message_.expiry_s)
                kept.expiry_s = message_.expiry_s;
        const int writes = (there || !empty) + (message_.expiry_s != 0);
        count("persist_write", "period_persist_write", writes);
    }

    // ---- the receivers

    void deliver()
    {
        if (is_will_or_broadcast() && packet_.size() > 129) { // the remaining length has two bytes
            words_.misread = packet_[2] * 256 + packet_[3];
            words_.behind  = packet_[2] * 256 + packet_[3] + 4;
            return tell(At::Misread);
        }
        tell(At::Broadcast);
        found_ = static_cast<int>(
            std::ranges::count_if(world_.members, [&](auto &each) { return fits(each.filter, message_.topic); }));
        tell(At::Found);
        if (found_ == 0)
            return tell(At::Nobody);
        seen_.turns = world_.groups;
        tell(At::List);
        each_match([&](const Member &, unsigned) { tell(At::Match); });
        each_match([&](const Member &to, unsigned qos) { deliver_to(to, qos); });
        tell(At::End);
    }
    template <class Act> void each_match(Act act)
    {
        int number = 0;
        for (const Member &member : world_.members) {
            if (!fits(member.filter, message_.topic))
                continue;
            const unsigned qos = std::min(message_.qos, member.granted);
            words_.n = ++number, words_.id = member.id, words_.filter = member.filter;
            words_.granted = member.granted, words_.least = qos;
            act(member, qos);
        }
    }
    void deliver_to(const Member &to, unsigned qos)
    {
        if (to.id == rules_.passed_by)
            return;
        if (to.passed_over)
            return tell(At::PassedOver);
        if (to.id.empty())
            return tell(At::NoId);
        if (to.presence != Presence::Online) {
            tell(to.presence == Presence::Waiting ? At::Waiting : At::Unknown);
            return keep_for(to, qos);
        }
        tell(At::Online);
        Sending out{message_.topic,
                    is_will_or_broadcast() ? payload_for(to) : message_.payload,
                    qos,
                    message_.retain && rules_.retain,
                    false,
                    rules_.expiry ? message_.expiry_s : 0};
        if (is_will_or_broadcast() && out.payload.empty())
            return tell(At::NoPayload);
        const unsigned id   = qos || rules_.draws_at_qos0 ? draw_id() : 0;
        const Encoded  made = encode(to.level, out, id);
        words_.code         = made.code;
        if (made.code)
            say(made.complaint);
        if (qos && rules_.tracks == Tracks::Anyway && encode(to.level, out, id, 4096).code == 0)
            track(to, id, out);
        if (made.code)
            return tell(At::NotEncoded);
        if (!send(to.id, made.bytes, to.hindrance))
            return tell(At::NotSent);
        sent_++;
        tell(At::Sent);
        if (qos && rules_.tracks == Tracks::Sent)
            track(to, id, out);
        if (qos == 1 && rules_.remembers_qos1)
            records_[to.id + ".qos1_pending"] = printed("=%u", id);
    }
    // What a receiver of this level takes for the payload of the sender's packet.
    Bytes payload_for(const Member &to)
    {
        size_t start = 4 + message_.topic.size() + (message_.qos ? 2 : 0);
        if (to.level == 5)
            start += 1u + (start < packet_.size() ? packet_[start] : 0u);
        words_.start = start, words_.left = static_cast<long>(packet_.size()) - static_cast<long>(start);
        return {packet_.begin() + static_cast<long>(std::min(start, packet_.size())), packet_.end()};
    }
    void keep_for(const Member &absent, unsigned qos)
    {
        if (rules_.keeps == Keeps::Nothing || !load(absent) || message_.payload.empty())
            return;
        if (rules_.keeps == Keeps::AboveQos0 && qos == 0)
            return tell(At::NotKept);
        (void)load(absent);
        std::string bytes;
        for (size_t at = 0; at < std::min<size_t>(message_.payload.size(), 1024); at++)
            bytes += printed("%02x", message_.payload[at]);
        write_file("message/" + absent.id + ".json",
                   printed(R"({"msgs":[{"msgid":N,"qos":%u,"topic":"%s","payload":"%s"}]})", qos,
                           message_.topic.c_str(), bytes.c_str()));
        tell(At::Kept);
        if (rules_.kept_counter)
            counters_[rules_.kept_counter]++;
    }

    // ---- what comes behind them

    void acknowledge()
    {
        if (message_.qos == 2)
            records_["p.qos2_pending"] = printed("=%u", kPublishId);
        send(kSender, packet(message_.qos == 1 ? 0x40 : 0x50, u16(kPublishId) + (level_ == 5 ? wire("00") : Bytes{})));
        tell(At::Answered);
    }
    void end_will()
    {
        count("will_sent", "period_will");
        seen_.told = {printed(R"(5 {"clientId":"p","topic":"%s","qos":%u})", message_.topic.c_str(), message_.qos)};
        records_["p.will_sent"] = "";
        tell(At::WillSent);
        if (!world_.sender_is_clean)
            write_file("subscription/p.json", R"({"subs":[{"topic":"saved","qos":1}]})");
    }
};

} // namespace tarn::test::routes

#endif
