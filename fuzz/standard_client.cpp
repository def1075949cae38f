// standard_client.cpp - see standard_client.h.
#include "standard_client.h"

#include "base/mutex.h"
#include "promise.h"
#include "standard/profile.h"

#include <sys/socket.h>
#include <unistd.h>

namespace tarn::fuzz {

using namespace codec::standard;
using conformance::Received;

namespace {

constexpr int kSmallBuffer = 4096; // bytes of a socket: a few long messages fill it

bool matches(std::string_view filter, std::string_view topic)
{
    if (filter.starts_with("$share/")) {
        filter.remove_prefix(sizeof "$share/" - 1);
        filter.remove_prefix(filter.find('/') + 1);
    }
    if (topic.starts_with('$') && !filter.starts_with('$'))
        return false;
    for (;;) {
        const std::string_view level = filter.substr(0, filter.find('/')), name = topic.substr(0, topic.find('/'));
        if (level == "#")
            return true;
        if (level != "+" && level != name)
            return false;
        const bool more_levels = level.size() < filter.size(), more_names = name.size() < topic.size();
        if (!more_levels || !more_names)
            return !more_names && (!more_levels || filter.substr(level.size()) == "/#");
        filter.remove_prefix(level.size() + 1);
        topic.remove_prefix(name.size() + 1);
    }
}

conformance::Type answer_to(PacketType type)
{
    return static_cast<conformance::Type>(type + 1);
}

} // namespace

bool KnownSession::is_there(uint64_t now_ms) const
{
    const bool is_for_ever = expiry_s == UINT32_MAX;
    return expiry_s > 0 && (owner || is_for_ever || now_ms < left_ms + uint64_t{expiry_s} * 1000);
}

// ---- the connection

void StandardClient::open()
{
    int pair[2];
    PROMISE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0);
    PROMISE(setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &kSmallBuffer, sizeof kSmallBuffer) == 0);
    forget_connection();
    end_ = pair[1];
    {
        ScopedLock lock(g_netip_lock);
        connection_ = net::open_slot(NETIP_TCP, pair[0], {});
    }
    const net::SlotPin accepted(connection_, net::SlotPin::Counted);
    net::event_sink().connected(connection_.handle, net::REASON_TCP);
}

void StandardClient::forget_connection()
{
    to_broker_.clear();
    from_broker_.clear();
    early_filters_.clear();
    reads_ = true;
    asked_for_.reset();
    said_connect_ = was_answered_ = is_over_ = got_pingresp_ = false;
    level_                                                   = Level::Mqtt5;
    in_flight_.clear();
    aliases_.clear();
    asked_.clear();
    owed_.clear();
    to_release_.clear();
}

void StandardClient::hang_up()
{
    if (const net::SlotPin hold(connection_); hold)
        net::hang_up(hold, net::event_sink());
    if (end_ >= 0)
        close(end_);
    end_ = -1;
    leave();
}

// It may have been accepted, and its SUBSCRIBEs too.
void StandardClient::note_unanswered(const std::string &id)
{
    auto &session = world_.sessions[id];
    if (!session) {
        session         = std::make_shared<KnownSession>();
        session->number = ++world_.last_session;
    }
    session->is_certain = false;
    for (const auto &[filter, asked] : early_filters_)
        session->filters.insert_or_assign(filter, KnownSession::Asked{2, false});
}

void StandardClient::leave()
{
    if (asked_for_)
        note_unanswered(*asked_for_);
    asked_for_.reset();
    const auto session = std::exchange(session_, nullptr);
    if (!session || session->owner != this)
        return;
    session->owner   = nullptr;
    session->left_ms = world_.now_ms;
    if (session->expiry_s == 0)
        world_.sessions.erase(id_);
}

// As the network layer does: packet by packet.
void StandardClient::send(std::span<const uint8_t> bytes)
{
    to_broker_.insert(to_broker_.end(), bytes.begin(), bytes.end());
    while (is_open() && !to_broker_.empty()) {
        const net::Measured packet = standard::profile().measure(connection_, to_broker_);
        if (packet.is_refused || packet.length == 0 || packet.length > to_broker_.size())
            return;
        const std::vector<uint8_t> copy(to_broker_.begin(), to_broker_.begin() + static_cast<long>(packet.length));
        to_broker_.erase(to_broker_.begin(), to_broker_.begin() + static_cast<long>(packet.length));
        note(copy);
        net::event_sink().data(connection_, copy.data(), static_cast<uint32_t>(copy.size()));
    }
}

std::string StandardClient::mark() const
{
    return session_ ? std::to_string(session_->number) + ":" : "0:";
}

// ---- what it says

void StandardClient::note(Bytes packet)
{
    const PacketType type = type_of(packet[0]);
    if (!said_connect_)
        return type == CONNECT ? note_connect(packet) : void();
    switch (type) {
    case SUBSCRIBE:
        return note_subscribe(packet);
    case UNSUBSCRIBE:
        if (Unsubscribe unsubscribe; decode_unsubscribe(packet, level_, unsubscribe).ok())
            ++asked_[{conformance::UNSUBACK, unsubscribe.packet_id}];
        return;
    case PUBLISH:
        return note_publish(packet);
    case PUBACK:
    case PUBREC:
    case PUBREL:
    case PUBCOMP:
        return note_ack(packet);
    case DISCONNECT:
        return note_disconnect(packet);
    default:
        return;
    }
}

void StandardClient::note_connect(Bytes packet)
{
    said_connect_ = true;
    Connect    connect;
    const bool decodes = decode_connect(packet, connect).ok();
    level_             = connect.level;
    most_bytes_        = connect.properties.maximum_packet_size.value_or(0);
    most_bytes_        = most_bytes_ ? most_bytes_ : SIZE_MAX;
    if (!decodes)
        return;
    asked_for_      = connect.client_id;
    clean_          = connect.clean_start;
    most_in_flight_ = connect.properties.receive_maximum.value_or(65535);
    most_aliases_   = connect.properties.topic_alias_maximum.value_or(0);
    expiry_s_       = connect.properties.session_expiry.value_or(0);
    if (level_ == Level::Mqtt311)
        expiry_s_ = clean_ ? 0 : UINT32_MAX;
}

void StandardClient::note_subscribe(Bytes packet)
{
    Subscribe subscribe;
    if (!decode_subscribe(packet, level_, subscribe).ok())
        return;
    ++asked_[{conformance::SUBACK, subscribe.packet_id}];
    auto &filters = session_ ? session_->filters : early_filters_;
    for (const Subscription &one : subscribe.subscriptions) {
        const auto [found, is_new] =
            filters.try_emplace(std::string(one.text), KnownSession::Asked{one.qos, one.no_local});
        found->second.qos             = std::max(found->second.qos, one.qos);
        found->second.always_no_local = found->second.always_no_local && one.no_local;
    }
}

void StandardClient::note_publish(Bytes packet)
{
    Publish publish;
    if (!decode_publish(packet, level_, publish).ok() || publish.qos == 0)
        return;
    ++asked_[{publish.qos == 1 ? conformance::PUBACK : conformance::PUBREC, publish.packet_id}];
}

void StandardClient::note_ack(Bytes packet)
{
    Ack ack;
    if (!decode_ack(packet, level_, ack).ok())
        return;
    if (ack.type == PUBREL || ack.type == PUBREC)
        ++asked_[{answer_to(ack.type), ack.packet_id}];
    if (ack.type == PUBCOMP && session_)
        session_->handed_over.erase(ack.packet_id);
    if (ack.type == PUBACK || ack.type == PUBCOMP || (ack.type == PUBREC && is_failure(ack.reason)))
        in_flight_.erase(ack.packet_id);
}

void StandardClient::note_disconnect(Bytes packet)
{
    Disconnect disconnect;
    if (!decode_disconnect(packet, level_, disconnect).ok() || !session_ || session_->owner != this)
        return;
    if (disconnect.properties.session_expiry && session_->expiry_s != 0)
        session_->expiry_s = *disconnect.properties.session_expiry;
}

// ---- what it is sent

void StandardClient::read()
{
    if (end_ < 0 || (!reads_ && is_open()))
        return;
    uint8_t bytes[65536];
    for (ssize_t got = 1; got > 0;) {
        size_t count = 0;
        while ((got = recv(end_, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
            from_broker_.insert(from_broker_.end(), bytes, bytes + got);
            count += static_cast<size_t>(got);
        }
        if (count > 0 && is_open()) {
            standard::profile().writable(connection_.handle);
            got = 1;
        }
    }
    take_stream();
    if (!is_open())
        hang_up();
}

void StandardClient::take_stream()
{
    size_t at = 0;
    while (at < from_broker_.size()) {
        const std::span<const uint8_t> rest(from_broker_.data() + at, from_broker_.size() - at);
        const PacketLength             packet = packet_length(rest);
        PROMISE(packet.verdict.ok());
        if (packet.length == 0 || packet.length > rest.size())
            break;
        const Received received =
            conformance::parse(level(), {rest.begin(), rest.begin() + static_cast<long>(packet.length)});
        if (!received.fault.empty())
            fprintf(stderr, "%s\n", received.fault.c_str());
        PROMISE(received.type != 0);
        PROMISE(packet.length <= most_bytes_);
        check(received);
        at += packet.length;
    }
    from_broker_.erase(from_broker_.begin(), from_broker_.begin() + static_cast<long>(at));
}

void StandardClient::check(const Received &packet)
{
    PROMISE(said_connect_ && !is_over_);
    const auto type = static_cast<PacketType>(packet.type);
    if (level_ == Level::Mqtt5 && packet.reason != 0)
        PROMISE(may_stand_in(type, static_cast<Reason>(packet.reason)));
    for (const uint8_t code : packet.reasons)
        PROMISE(level_ == Level::Mqtt311 ? code <= 2 || code == 0x80 : may_stand_in(type, static_cast<Reason>(code)));
    PROMISE(was_answered_ || packet.type == conformance::CONNACK || packet.type == conformance::DISCONNECT);
    switch (packet.type) {
    case conformance::CONNACK:
        return check_connack(packet);
    case conformance::PUBLISH:
        return check_publish(packet);
    case conformance::PUBREL:
        return check_pubrel(packet);
    case conformance::PUBACK:
    case conformance::PUBREC:
    case conformance::PUBCOMP:
    case conformance::SUBACK:
    case conformance::UNSUBACK:
        return check_answer(packet);
    case conformance::PINGRESP:
        got_pingresp_ = true;
        return;
    default:
        PROMISE(packet.type == conformance::DISCONNECT);
        is_over_ = true;
    }
}

void StandardClient::check_connack(const Received &packet)
{
    PROMISE(!was_answered_);
    was_answered_ = true;
    PROMISE(packet.reason == 0 || !packet.session_present);
    if (packet.reason != 0) {
        is_over_ = true;
        return;
    }
    PROMISE(asked_for_);
    begin_session(packet);
}

// Whether there was one, as far as that is certain.
void StandardClient::begin_session(const Received &packet)
{
    const auto assigned = packet.properties.text(conformance::AssignedClientId);
    PROMISE(!assigned || asked_for_->empty());
    id_ = assigned.value_or(*asked_for_);
    asked_for_.reset();
    if (id_.empty()) // 3.1.1: nobody knows its name
        id_ = "?" + std::to_string(world_.last_session);
    const auto found    = world_.sessions.find(id_);
    const auto existing = found != world_.sessions.end() ? found->second : nullptr;
    PROMISE(!(clean_ && packet.session_present));
    if (world_.is_certain && (!existing || existing->is_certain)) {
        const bool is_there = existing && existing->is_there(world_.now_ms);
        PROMISE(clean_ || packet.session_present == is_there);
    }
    if (existing && existing->owner && existing->owner != this)
        existing->owner->session_.reset();
    session_ = packet.session_present ? existing : std::make_shared<KnownSession>();
    if (!packet.session_present)
        session_->number = ++world_.last_session;
    session_->owner      = this;
    session_->is_certain = true;
    session_->expiry_s   = packet.properties.number(conformance::SessionExpiry).value_or(expiry_s_);
    world_.sessions[id_] = session_;
    for (auto &[filter, asked] : early_filters_)
        session_->filters.insert_or_assign(filter, KnownSession::Asked{2, false});
}

void StandardClient::check_publish(const Received &packet)
{
    std::string topic = packet.topic;
    if (const auto alias = packet.properties.number(conformance::Alias)) {
        PROMISE(*alias >= 1 && *alias <= most_aliases_);
        if (!topic.empty())
            aliases_[*alias] = topic;
        topic = aliases_[*alias];
    }
    PROMISE(is_topic_name(topic));
    if (packet.qos > 0)
        check_in_flight(packet);
    if (session_)
        check_wanted(topic, packet);
}

void StandardClient::check_in_flight(const Received &packet)
{
    const auto id = static_cast<uint16_t>(packet.id);
    PROMISE(in_flight_.try_emplace(id, packet.qos).second);
    PROMISE(in_flight_.size() <= most_in_flight_);
    PROMISE(!session_ || !session_->handed_over.contains(id));
    owed_.push_back({packet.qos == 1 ? conformance::PUBACK : conformance::PUBREC, id});
}

// It asked for this topic, at no less than this QoS, and not for others' messages alone.
void StandardClient::check_wanted(const std::string &topic, const Received &packet) const
{
    const bool is_own = !packet.retain && packet.payload.starts_with(mark());
    bool       wanted = false;
    for (const auto &[filter, asked] : session_->filters)
        wanted = wanted || (matches(filter, topic) && asked.qos >= packet.qos && !(is_own && asked.always_no_local));
    PROMISE(wanted);
}

void StandardClient::check_pubrel(const Received &packet)
{
    const auto id = static_cast<uint16_t>(packet.id);
    owed_.push_back({conformance::PUBCOMP, id});
    if (session_ && in_flight_.contains(id) && in_flight_[id] == 2)
        session_->handed_over.insert(id);
}

// Somebody asked for it.
void StandardClient::check_answer(const Received &packet)
{
    int &asked = asked_[{packet.type, static_cast<uint16_t>(packet.id)}];
    PROMISE(asked > 0);
    --asked;
    if (packet.type == conformance::PUBREC && packet.reason < 0x80)
        to_release_.push_back(static_cast<uint16_t>(packet.id));
}

// ---- what it owes

bool StandardClient::acknowledge_next(uint8_t reason)
{
    if (owed_.empty() || !is_open())
        return false;
    const Owed next = owed_.front();
    owed_.pop_front();
    send(conformance::ack_packet(next.type, next.id,
                                 level_ == Level::Mqtt5 && next.type != conformance::PUBCOMP ? reason : 0));
    return true;
}

bool StandardClient::release_next()
{
    if (to_release_.empty() || !is_open())
        return false;
    send(conformance::ack_packet(conformance::PUBREL, to_release_.front()));
    if (!to_release_.empty())
        to_release_.pop_front();
    return true;
}

} // namespace tarn::fuzz
