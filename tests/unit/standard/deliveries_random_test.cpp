// Random lives of a session: what it sends is what a naive model says; a client that loses packets whenever its
// connection ends gets each message as often as its QoS says; and a restart from files at any moment changes nothing.
#include "deliveries_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

using namespace tarn::standard;
using namespace tarn::test::sessions;

namespace {

constexpr int      kSequences = 3000;
constexpr int      kSteps     = 150;
constexpr uint64_t kSession   = 1;

// ---- The model: one vector, searched for everything

class Model {
public:
    struct Packet {
        Outgoing::Kind kind      = Outgoing::Kind::Nothing;
        int            payload   = 0;
        uint16_t       packet_id = 0; // 0: new, any that is unused
        bool           dup       = false;
    };

    uint64_t expired = 0, too_large = 0, disconnected = 0;

    void offer(int payload, uint8_t qos, uint64_t expires_ms, size_t size)
    {
        items_.push_back({.payload = payload, .qos = qos, .expires_ms = expires_ms, .size = size});
    }
    void connect()
    {
        disconnect();
        connected_ = true;
        for (Item &item : items_)
            item.is_on_wire = false;
    }
    void disconnect()
    {
        connected_ = false;
        disconnected += std::erase_if(items_, [](const Item &item) { return item.qos == 0; });
    }
    Packet next(uint64_t now_ms, const Limits &limits)
    {
        if (!connected_)
            return {};
        const bool has_room = count([](const Item &item) { return item.received || item.is_on_wire; }) < limits.maximum;
        while (Item *const again = find_again(has_room)) {
            if (!again->received && again->size > limits.largest) {
                ++too_large;
                if (again->qos == 1) {
                    items_.erase(items_.begin() + (again - items_.data()));
                    continue;
                }
                again->received = true;
                again->order    = ++orders_;
            }
            again->is_on_wire = true;
            if (again->received)
                return {.kind = Outgoing::Kind::Pubrel, .packet_id = again->packet_id};
            return {Outgoing::Kind::Publish, again->payload, again->packet_id, true};
        }
        const auto waits = [](const Item &item) { return item.packet_id != 0 && !item.received && !item.is_on_wire; };
        return count(waits) > 0 ? Packet{} : next_queued(now_ms, limits, has_room);
    }
    void assign(int payload, uint16_t packet_id)
    {
        Item &item      = *std::ranges::find(items_, payload, &Item::payload);
        item.packet_id  = packet_id;
        item.is_on_wire = true;
        item.order      = ++orders_;
    }
    void received(uint16_t packet_id)
    {
        Item &item      = *find(packet_id);
        item.order      = item.received ? item.order : ++orders_;
        item.received   = true;
        item.is_on_wire = true;
    }
    void   done(uint16_t packet_id) { items_.erase(items_.begin() + (find(packet_id) - items_.data())); }
    bool   uses(uint16_t packet_id) { return find(packet_id) != nullptr; }
    size_t stored() const
    {
        return static_cast<size_t>(std::ranges::count_if(items_, [](const Item &item) { return item.qos > 0; }));
    }

private:
    struct Item {
        int      payload    = 0;
        uint8_t  qos        = 0;
        uint64_t expires_ms = 0;
        size_t   size       = 0;
        uint16_t packet_id  = 0;
        bool     received   = false;
        bool     is_on_wire = false; // its packet was sent over this connection
        int      order      = 0;
    };

    template <class Predicate> size_t count(Predicate predicate) const
    {
        return static_cast<size_t>(std::ranges::count_if(items_, predicate));
    }
    Item *find(uint16_t packet_id)
    {
        const auto found = std::ranges::find(items_, packet_id, &Item::packet_id);
        return found == items_.end() ? nullptr : &*found;
    }
    Item *find_again(bool has_room)
    {
        Item *first = nullptr;
        for (Item &item : items_) {
            if (item.packet_id != 0 && !item.is_on_wire && (item.received || has_room) &&
                (!first || item.order < first->order))
                first = &item;
        }
        return first;
    }
    Packet next_queued(uint64_t now_ms, const Limits &limits, bool has_room)
    {
        while (true) {
            const auto first = std::ranges::find(items_, 0, &Item::packet_id);
            if (first == items_.end())
                return {};
            const bool is_expired = first->expires_ms != 0 && first->expires_ms <= now_ms;
            if (!is_expired && first->qos > 0 && !has_room)
                return {};
            const Packet packet{Outgoing::Kind::Publish, first->payload, 0, false};
            if (!is_expired && first->size <= limits.largest) {
                if (first->qos == 0)
                    items_.erase(first);
                return packet;
            }
            ++(is_expired ? expired : too_large);
            items_.erase(first);
        }
    }

    std::vector<Item> items_; // in the order of their offers
    bool              connected_ = false;
    int               orders_    = 0;
};

// ---- The client: acknowledges what reaches it, and checks that it is sent what it may be sent

struct ToBroker {
    enum Kind { Puback, Pubrec, Pubcomp } kind;
    uint16_t packet_id;
    uint8_t  reason;
};

class Client {
public:
    std::map<int, int>   delivered; // how often, by payload
    std::set<int>        refused;
    std::vector<int>     first_deliveries;
    std::deque<ToBroker> answers;

    void connect(uint16_t receive_maximum)
    {
        receive_maximum_ = receive_maximum;
        outstanding_.clear();
        seen_.clear();
        answers.clear();
    }
    void take(const Outgoing &packet, bool refuses)
    {
        if (packet.kind == Outgoing::Kind::Pubrel) {
            const bool known = held_.erase(packet.packet_id) == 1;
            answers.push_back({ToBroker::Pubcomp, packet.packet_id, static_cast<uint8_t>(known ? 0 : 0x92)});
            return;
        }
        if (packet.qos > 0)
            check(packet);
        if (packet.qos == 2 && held_.contains(packet.packet_id)) {
            answers.push_back({ToBroker::Pubrec, packet.packet_id, 0});
            return;
        }
        const int payload = std::stoi(payload_of(packet.message));
        refuses           = refuses && packet.qos > 0;
        if (refuses)
            refused.insert(payload);
        else
            deliver(payload);
        if (packet.qos == 2 && !refuses)
            held_.insert(packet.packet_id);
        if (packet.qos > 0)
            answers.push_back({packet.qos == 1 ? ToBroker::Puback : ToBroker::Pubrec, packet.packet_id,
                               static_cast<uint8_t>(refuses ? 0x83 : 0)});
    }
    // An answer that reaches the broker.
    ToBroker take_answer()
    {
        const ToBroker answer = answers.front();
        answers.pop_front();
        if (answer.kind != ToBroker::Pubrec || answer.reason != 0)
            outstanding_.erase(answer.packet_id);
        return answer;
    }

private:
    void check(const Outgoing &publish)
    {
        EXPECT_NE(publish.packet_id, 0);
        EXPECT_TRUE(seen_.insert(payload_of(publish.message)).second) << "twice over one connection";
        EXPECT_TRUE(outstanding_.insert(publish.packet_id).second);
        EXPECT_LE(outstanding_.size(), receive_maximum_);
    }
    void deliver(int payload)
    {
        // A refusal that was lost comes late when the message is accepted after all.
        if (++delivered[payload] == 1 && !refused.contains(payload))
            first_deliveries.push_back(payload);
    }

    uint16_t              receive_maximum_ = 65535;
    std::set<uint16_t>    held_;        // at QoS 2; outlives connections
    std::set<uint16_t>    outstanding_; // not acknowledged, on this connection
    std::set<std::string> seen_;        // on this connection
};

// ---- The file: a checkpoint, and the changes from a moment before it on

class File : public DeliverySink {
public:
    bool queued(uint64_t, const DeliveryRecord &record) override
    {
        changes_.push_back({Change::Queued, record, record.number, 0});
        return true;
    }
    void sent(uint64_t, uint64_t number, uint16_t packet_id) override
    {
        changes_.push_back({Change::Sent, {}, number, packet_id});
    }
    void received(uint64_t, uint64_t number, uint16_t packet_id) override
    {
        changes_.push_back({Change::Received, {}, number, packet_id});
    }
    void done(uint64_t, uint64_t number, uint16_t packet_id) override
    {
        changes_.push_back({Change::Done, {}, number, packet_id});
    }
    void begin_checkpoint() { begin_ = changes_.size(); }
    void finish_checkpoint(const Deliveries &session)
    {
        if (!begin_)
            return;
        changes_.erase(changes_.begin(), changes_.begin() + static_cast<ptrdiff_t>(*begin_));
        begin_.reset();
        records_.clear();
        session.for_each([&](const DeliveryRecord &record) { records_.push_back(record); });
        last_number_ = session.last_number();
    }
    void restore(Deliveries &session)
    {
        for (const DeliveryRecord &record : records_)
            ASSERT_EQ(session.restore(record), Restored::Done);
        session.restore_last_number(last_number_);
        for (const Change &change : changes_)
            ASSERT_NE(change.restore(session), Restored::NoMemory);
    }

private:
    struct Change {
        enum Kind { Queued, Sent, Received, Done } kind;
        DeliveryRecord record;
        uint64_t       number;
        uint16_t       packet_id;

        Restored restore(Deliveries &session) const
        {
            switch (kind) {
            case Queued:
                return session.restore(record);
            case Sent:
                return session.restore_sent(number, packet_id);
            case Received:
                return session.restore_received(number, packet_id);
            default:
                return session.restore_done(number, packet_id);
            }
        }
    };

    std::vector<DeliveryRecord> records_;
    uint64_t                    last_number_ = 0;
    std::vector<Change>         changes_;
    std::optional<size_t>       begin_; // in `changes_`, of a checkpoint that is not finished
};

// ---- All of them together

class Life {
public:
    explicit Life(unsigned seed) : random_(seed) { make_session(); }

    void run()
    {
        for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) {
            step();
            EXPECT_EQ(session_->stored().count, model_.stored());
        }
        drain();
        check_deliveries();
    }

private:
    struct Offer {
        uint8_t qos;
        bool    may_be_lost; // expiry, Maximum Packet Size, the end of a connection
    };

    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }

    void make_session()
    {
        session_ = std::make_unique<Deliveries>(kSession, pool_, DeliveryBounds{{100000, 1 << 30}, {100000, 1 << 30}});
        session_->set_sink(&file_);
    }
    void step()
    {
        now_ms_ += below(300);
        switch (below(16)) {
        case 0:
            connect();
            break;
        case 1:
            disconnect();
            break;
        case 2:
            restart();
            break;
        case 3:
            file_.begin_checkpoint();
            break;
        case 4:
            file_.finish_checkpoint(*session_);
            break;
        case 5:
        case 6:
        case 7:
        case 8:
            offer();
            break;
        case 9:
        case 10:
        case 11:
            answer();
            break;
        default:
            send();
        }
    }
    void connect()
    {
        const uint16_t maxima[] = {1, 2, 3, 65535};
        limits_.maximum         = maxima[below(4)];
        limits_.largest         = below(4) == 0 ? 4 : SIZE_MAX; // payloads are "1000" or "001000"
        session_->resume();
        model_.connect();
        client_.connect(limits_.maximum);
        connected_ = true;
    }
    void disconnect()
    {
        session_->absent();
        model_.disconnect();
        client_.answers.clear();
        connected_ = false;
    }
    void restart()
    {
        disconnect();
        check_drops();
        const std::vector<std::string> before = records();
        make_session();
        file_.restore(*session_);
        EXPECT_EQ(records(), before);
    }
    std::vector<std::string> records() const
    {
        std::vector<std::string> all;
        session_->for_each([&](const DeliveryRecord &record) { all.push_back(text(record)); });
        return all;
    }
    void offer()
    {
        const int      payload    = 1000 + static_cast<int>(offers_.size());
        const auto     qos        = static_cast<uint8_t>(below(3));
        const bool     is_large   = below(5) == 0;
        const uint64_t expires_ms = below(4) == 0 ? now_ms_ + 1 + below(5000) : 0;
        const auto     bytes      = (is_large ? "00" : "") + std::to_string(payload);
        offers_.push_back({qos, qos == 0 || is_large || expires_ms != 0});
        const Offered result = session_->offer(message(bytes, expires_ms), qos, false);
        if (qos == 0 && !connected_) {
            EXPECT_EQ(result, Offered::NotConnected);
            return;
        }
        EXPECT_EQ(result, Offered::Queued);
        model_.offer(payload, qos, expires_ms, bytes.size());
    }
    // Sends one packet, which may be lost with the connection. Whether there was one.
    bool send()
    {
        const Model::Packet expected = model_.next(now_ms_, limits_);
        const Outgoing      packet   = session_->next(now_ms_, limits_);
        EXPECT_EQ(packet.kind, expected.kind);
        if (packet.kind != expected.kind || packet.kind == Outgoing::Kind::Nothing)
            return false;
        if (packet.kind == Outgoing::Kind::Publish) {
            EXPECT_EQ(std::stoi(payload_of(packet.message)), expected.payload);
            EXPECT_EQ(packet.dup, expected.dup);
        }
        if (expected.packet_id != 0) {
            EXPECT_EQ(packet.packet_id, expected.packet_id);
        } else if (packet.qos > 0) {
            EXPECT_FALSE(model_.uses(packet.packet_id));
            model_.assign(expected.payload, packet.packet_id);
        }
        if (connected_ && below(10) == 0)
            disconnect();
        else
            client_.take(packet, below(8) == 0);
        return true;
    }
    bool answer()
    {
        if (client_.answers.empty())
            return false;
        const ToBroker answer    = client_.take_answer();
        const bool     is_pubrec = answer.kind == ToBroker::Pubrec;
        const auto     known     = model_.uses(answer.packet_id);
        const auto     result    = hand_in(answer);
        EXPECT_TRUE(known);
        EXPECT_EQ(result.outcome, answer.reason >= 0x80 ? Outcome::Refused
                                  : is_pubrec           ? Outcome::Received
                                                        : Outcome::Completed);
        EXPECT_EQ(result.answer, result.outcome == Outcome::Received ? Answer::Pubrel : Answer::Nothing);
        if (result.outcome != Outcome::Received) {
            model_.done(answer.packet_id);
            return true;
        }
        model_.received(answer.packet_id);
        Outgoing pubrel;
        pubrel.kind      = Outgoing::Kind::Pubrel;
        pubrel.packet_id = answer.packet_id;
        client_.take(pubrel, false);
        return true;
    }
    Acknowledged hand_in(const ToBroker &answer)
    {
        if (answer.kind == ToBroker::Puback)
            return session_->puback(answer.packet_id, answer.reason);
        if (answer.kind == ToBroker::Pubrec)
            return session_->pubrec(answer.packet_id, answer.reason);
        return session_->pubcomp(answer.packet_id, answer.reason);
    }
    void check_drops()
    {
        const Drops drops = session_->take_drops();
        drops_.expired += drops.expired;
        drops_.too_large += drops.too_large;
        drops_.disconnected += drops.disconnected;
        EXPECT_EQ(drops_.expired, model_.expired);
        EXPECT_EQ(drops_.too_large, model_.too_large);
        EXPECT_EQ(drops_.disconnected, model_.disconnected);
    }
    // All that is left arrives.
    void drain()
    {
        connect();
        for (int i = 0; session_->stored().count > 0 && i < 100000 && !testing::Test::HasFailure(); ++i) {
            if (!connected_)
                connect();
            const bool sent     = send();
            const bool answered = answer();
            if (!sent && !answered)
                break;
        }
        EXPECT_EQ(session_->stored().count, 0u);
        EXPECT_EQ(session_->stored().bytes, 0u);
        EXPECT_EQ(session_->in_flight(), 0u);
        check_drops();
    }
    void check_deliveries()
    {
        EXPECT_TRUE(std::ranges::is_sorted(client_.first_deliveries)) << "one has overtaken another";
        for (size_t i = 0; i < offers_.size(); ++i) {
            const int payload = 1000 + static_cast<int>(i);
            const int times   = client_.delivered.contains(payload) ? client_.delivered[payload] : 0;
            EXPECT_TRUE(times <= 1 || offers_[i].qos == 1) << payload;
            EXPECT_TRUE(times >= 1 || offers_[i].may_be_lost || client_.refused.contains(payload)) << payload;
        }
    }

    std::mt19937                random_;
    DeliveryPool                pool_;
    File                        file_;
    std::unique_ptr<Deliveries> session_;
    Model                       model_;
    Client                      client_;
    Limits                      limits_;
    Drops                       drops_;
    std::vector<Offer>          offers_;
    uint64_t                    now_ms_    = 1000000;
    bool                        connected_ = false;
};

} // namespace

TEST(deliveries_random, are_what_the_model_says)
{
    for (unsigned seed = 0; seed < kSequences && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        Life(seed).run();
    }
}
