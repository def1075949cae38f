// connect.cpp - CONNECT (3.1): who the client is, what is agreed on, and what becomes of its session.
#include "../api/api.hpp"
#include "../base/clock.h"
#include "../log/log.h"
#include "c_text.h"
#include "engine.h"
#include "stored_properties.h"

namespace tarn::standard {

using codec::standard::Connack;
using codec::standard::Connect;
using codec::standard::Properties;
using codec::standard::Verdict;

namespace {

// A CONNECT that decoded, and what is found out about it.
struct Login {
    Connection      &connection;
    const Connect   &connect;
    std::string_view id;              // as it came, or the one that was made up
    client_id_text   made_up    = {}; // to be told, 5.0
    bool             is_made_up = false;
    client_id_text   stored     = {};
    StoredWill       will       = {};
};

bool speaks_v5(const Connect &connect)
{
    return connect.level == codec::standard::Level::Mqtt5;
}

// ---- the answer

// Of a CONNECT that is not accepted; then the connection ends [MQTT-3.2.2-7].
void refuse(Connection &connection, const Verdict &verdict)
{
    LOG_INFO("[standard] connection %u is refused: %s", connection.id.handle, verdict.text);
    Turn turn;
    if (!turn)
        return;
    Connack connack;
    connack.reason = verdict.reason;
    send(*turn, connection, connack);
    drop_connection(*turn, connection, WithWill::No);
}

// What the client can take holds for every answer, the refusal too. Nobody else looks before its stage is Connected.
void note_receiver(Connection &connection, const Connect &connect)
{
    connection.level               = connect.level;
    connection.is_bridge           = connect.is_bridge;
    connection.maximum_packet_size = connect.properties.maximum_packet_size.value_or(0);
    if (connection.maximum_packet_size == 0) // absent, or an error that is still to be told
        connection.maximum_packet_size = codec::standard::kPacketMax;
    connection.receive_maximum = static_cast<uint16_t>(connect.properties.receive_maximum.value_or(65535));
}

// ---- who it is

// The key does not change while the engine runs, and few identifiers need it.
IdKey key_for(std::string_view id)
{
    if (is_stored_whole(id))
        return {};
    const ScopedLock    lock(engine_mutex);
    const Engine *const engine = running_engine();
    return engine ? engine->state.id_key : IdKey{};
}

// Those of any length are accepted; 3.1.1 lets only clean sessions go without [MQTT-3.1.3-8].
Verdict identify(Login &login)
{
    login.id = login.connect.client_id;
    if (login.id.empty()) {
        if (!speaks_v5(login.connect) && !login.connect.clean_start)
            return {Reason::ClientIdentifierNotValid, "no client identifier, and a session that is to be kept"};
        login.made_up    = made_up_id();
        login.is_made_up = true;
        login.id         = login.made_up.text;
    }
    login.stored = stored_id(login.id, key_for(login.id));
    return {};
}

bool has_terminator(codec::standard::Bytes password)
{
    return !password.empty() && memchr(password.data(), 0, password.size());
}

// The host's callback takes texts. It would see the beginning of a password with a zero byte, so that is no password.
bool is_accepted(const Login &login)
{
    const Connect               &connect  = login.connect;
    broker_t *const              broker   = login.connection.broker;
    const codec::standard::Bytes password = connect.password.value_or(codec::standard::Bytes{});
    const CText                  user(connect.user_name.value_or(std::string_view{}));
    const CText                  secret({reinterpret_cast<const char *>(password.data()), password.size()});
    if (!user || !secret || (has_terminator(password) && api::asks_about_logins(broker)))
        return false;
    return api::accepts(broker, login.stored.text, user.get(), secret.get());
}

Verdict authenticate(const Login &login)
{
    if (is_accepted(login))
        return {};
    return {Reason::BadUserNameOrPassword, "the host does not accept its user name and password"};
}

Verdict authorize_will(const Login &login)
{
    if (!login.connect.will)
        return {};
    const CText topic(login.connect.will->topic);
    if (topic && api::allows(*login.connection.record, topic.get(), BROKER_ACL_PUBLISH))
        return {};
    return {Reason::NotAuthorized, "the host does not allow its will"};
}

StoredWill will_of(const Login &login)
{
    if (!login.connect.will)
        return {};
    const codec::standard::Will &will      = *login.connect.will;
    Properties                   forwarded = will.properties;
    StoredWill                   stored;
    stored.delay_s  = std::exchange(forwarded.will_delay, std::nullopt).value_or(0);
    stored.expiry_s = std::exchange(forwarded.message_expiry, std::nullopt);
    const StoredProperties properties(forwarded);
    if (properties)
        stored.message = MessageRef::make({.number     = ++*login.connection.message_numbers,
                                           .expires_ms = 0,
                                           .sender     = 0, // until it is published
                                           .qos        = will.qos,
                                           .retain     = will.retain,
                                           .topic      = will.topic,
                                           .properties = properties.bytes(),
                                           .payload    = will.payload});
    return stored;
}

bool make_record(Connection &connection)
{
    client_ref       record = client::make_record(connection.id, connection.broker);
    const ScopedLock lock(engine_mutex);
    connection.record = std::move(record);
    return static_cast<bool>(connection.record);
}

// All places are taken, one of them by an earlier connection of this client, which has to go anyway: if it is this client
// indeed, for which the host is asked once more. True: it has gone.
bool end_earlier(const Login &login)
{
    if (login.is_made_up || !is_accepted(login))
        return false;
    Turn turn;
    if (!turn)
        return false;
    Session *const session = turn->state.sessions.find(login.id);
    if (!session || !session->connection)
        return false;
    end_connection(*turn, *session->connection, Reason::SessionTakenOver);
    return true;
}

Verdict judge(Login &login)
{
    Connection &connection = login.connection;
    if (login.connect.properties.authentication_method)
        return {Reason::BadAuthenticationMethod, "extended authentication is not supported"};
    if (Verdict verdict = identify(login); !verdict.ok())
        return verdict;
    login.will = will_of(login);
    if (login.connect.will && !login.will.message)
        return {Reason::ServerUnavailable, "no memory for its will"};
    if (!make_record(connection) && !(end_earlier(login) && make_record(connection)))
        return {Reason::ServerUnavailable, "there is no place for another client"};
    client::name_record(*connection.record, login.stored.text, static_cast<uint8_t>(login.connect.level),
                        login.connect.clean_start);
    if (Verdict verdict = authenticate(login); !verdict.ok())
        return verdict;
    return authorize_will(login);
}

// ---- its session

uint32_t expiry_of(const Connect &connect)
{
    if (speaks_v5(connect))
        return connect.properties.session_expiry.value_or(0);
    return connect.clean_start ? 0 : kForever_s;
}

// Of an earlier connection of this client, which ends [MQTT-3.1.4-3]; and of a clean start, before which nothing is left
// [MQTT-3.1.2-4].
Session *session_left_by_earlier(Engine &engine, const Login &login, Session *session) REQUIRES(engine_mutex)
{
    if (session && session->connection) {
        end_connection(engine, *session->connection, Reason::SessionTakenOver);
        session = engine.state.sessions.find(login.id); // it may have ended with its connection
    }
    if (session && login.connect.clean_start) {
        end_session(engine, *session);
        session = nullptr;
    }
    return session;
}

Session *make_session(Engine &engine, const Login &login, const Sessions::Key &key) REQUIRES(engine_mutex)
{
    State &state = engine.state;
    if (expiry_of(login.connect) > 0 && state.sessions.count_kept() >= state.limits.sessions)
        return nullptr;
    return state.sessions.make(key, state.bounds());
}

// A client that came back has not vanished: its delayed will is forgotten [MQTT-3.1.3-9].
bool begin_session(Engine &engine, const Login &login, Session &session) REQUIRES(engine_mutex)
{
    Connection &connection = login.connection;
    engine.state.sessions.set_nothing_due(session);
    session.will       = login.will;
    session.expiry_s   = std::min(expiry_of(login.connect), engine.state.limits.session_expiry_max_s);
    session.away_ms    = 0;
    session.connection = &connection;
    session.deliveries.set_sink(session.is_kept() ? &engine.recorder : nullptr);
    session.deliveries.resume();
    session.incoming.connected(speaks_v5(login.connect) ? engine.state.limits.receive_maximum : uint16_t{65535});
    const bool was_known = session.is_known_to_files;
    engine.state.sessions.set_known_to_files(session, session.is_kept());
    if (session.is_kept())
        return engine.recorder.session(session);
    return !was_known || engine.recorder.session_is_gone(session);
}

// The CONNECT cannot be accepted after all: an earlier session goes on waiting for its client.
void give_back(Engine &engine, Session &session, bool was_there) REQUIRES(engine_mutex)
{
    session.connection = nullptr;
    session.will       = {};
    session.away_ms    = wall_ms();
    session.deliveries.absent();
    if (was_there && session.is_kept())
        set_due(engine, session);
    else
        end_session(engine, session);
}

// ---- what is agreed on

Properties agreed(const Engine &engine, const Login &login, const Session &session)
{
    Properties    properties;
    const Limits &limits = engine.state.limits;
    if (!speaks_v5(login.connect))
        return properties;
    if (login.is_made_up)
        properties.assigned_client_id = login.id; // [MQTT-3.2.2-16]
    if (session.expiry_s != expiry_of(login.connect))
        properties.session_expiry = session.expiry_s;
    properties.maximum_packet_size = limits.max_packet_size;
    properties.receive_maximum     = limits.receive_maximum;
    properties.topic_alias_maximum = IncomingAliases::kMost;
    return properties;
}

// One and a half times what was agreed [MQTT-3.1.2-22].
void watch_silence(Engine &engine, Connection &connection, uint16_t keep_alive_s) REQUIRES(engine_mutex)
{
    engine.silent.remove(connection);
    connection.silence_ms = keep_alive_s * 1500U;
    if (connection.silence_ms == 0)
        return;
    connection.due_ms = connection.last_packet_ms + connection.silence_ms;
    (void)engine.silent.add(connection);
}

void open_connection(Engine &engine, const Login &login, Session &session) REQUIRES(engine_mutex)
{
    Connection &connection    = login.connection;
    connection.session        = &session;
    connection.session_number = session.number;
    connection.longest_packet = engine.state.limits.max_packet_size;
    connection.last_packet_ms = mono_ms();
    connection.outgoing_aliases.set_maximum(login.connect.properties.topic_alias_maximum.value_or(0));
    watch_silence(engine, connection, login.connect.keep_alive);
    connection.stage.store(Stage::Connected);
    // Before CONNACK, behind which a host may look for the client; false if it has gone, which its end sees to.
    (void)client::log_in_record(*connection.record, login.connect.keep_alive);
}

// What is left out the client takes as it is by default, and learns where it meets it.
void send_connack(Engine &engine, Connection &connection, const Connack &connack, uint64_t journaled)
    REQUIRES(engine_mutex)
{
    if (codec::standard::size_of(connack, connection.receiver()) != 0)
        return send(engine, connection, connack, journaled);
    Connack shorter{.session_present = connack.session_present, .reason = connack.reason, .properties = {}};
    shorter.properties.assigned_client_id = connack.properties.assigned_client_id;
    send(engine, connection, shorter, journaled);
}

// Before anything of an earlier connection or session ends. False: the journal has no room for what would change.
bool can_record(Engine &engine, const Login &login, const Session *earlier) REQUIRES(engine_mutex)
{
    constexpr size_t kRest = 1024; // bytes beside id and will
    if (expiry_of(login.connect) == 0 && !(earlier && earlier->is_known_to_files))
        return true;
    return engine.journal.can_take(login.id.size() + (login.will.message ? login.will.message->size() : 0) + kRest);
}

// Not Success: there is no room for its session, or it cannot be recorded.
Reason log_in(Engine &engine, const Login &login) REQUIRES(engine_mutex)
{
    const Sessions::Key key     = engine.state.sessions.key_of(login.id);
    Session *const      earlier = engine.state.sessions.find(key);
    if (!can_record(engine, login, earlier))
        return Reason::ServerUnavailable;
    Connection    &connection = login.connection;
    const uint64_t before     = engine.recorder.position();
    const bool     was_there  = earlier != nullptr;
    Session       *session    = session_left_by_earlier(engine, login, earlier);
    const bool     is_present = session != nullptr;
    if (!session && !(session = make_session(engine, login, key)))
        return Reason::ServerUnavailable;
    if (!begin_session(engine, login, *session)) {
        give_back(engine, *session, is_present);
        return Reason::ServerUnavailable;
    }
    open_connection(engine, login, *session);
    const Connack  connack{.session_present = is_present, // [MQTT-3.2.2-3]
                           .reason          = Reason::Success,
                           .properties      = agreed(engine, login, *session)};
    const uint64_t behind = engine.recorder.position();
    send_connack(engine, connection, connack,
                 was_there || behind != before ? behind : 0); // also for the end of an earlier session
    return Reason::Success;
}

Verdict accept(const Login &login)
{
    Turn turn;
    if (!turn || login.connection.stage.load() != Stage::Opened)
        return {Reason::ServerUnavailable, "it has gone"};
    const Reason reason = log_in(*turn, login);
    return {reason, "the server has no room for its session"};
}

} // namespace

void handle_connect(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    if (connection.stage.load() == Stage::Connected) // [MQTT-3.1.0-2]
        return refuse_packet(connection, {Reason::ProtocolError, "a second CONNECT"});
    Connect connect;
    Verdict verdict = decode_connect(incoming.packet, connect);
    note_receiver(connection, connect);
    Login login{.connection = connection, .connect = connect, .id = {}};
    if (verdict.ok())
        verdict = judge(login);
    if (verdict.ok())
        verdict = accept(login);
    if (!verdict.ok())
        return refuse(connection, verdict);
    api::tell(*connection.record, BROKER_EVENT_CONNECTED);
}

} // namespace tarn::standard
