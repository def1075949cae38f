// disconnect.cpp - DISCONNECT and AUTH of a client (3.14, 3.15).
#include "../api/api.hpp"
#include "engine.h"

namespace tarn::standard {

using codec::standard::Verdict;

namespace {

// False: it breaks a rule. A session that was to end with the connection cannot be kept at the end [MQTT-3.14.2-2].
bool change_expiry(const Engine &engine, Session &session, std::optional<uint32_t> expiry_s)
{
    if (!expiry_s)
        return true;
    if (session.expiry_s == 0 && *expiry_s != 0)
        return false;
    session.expiry_s = std::min(*expiry_s, engine.state.limits.session_expiry_max_s);
    return true;
}

void accept(Engine &engine, Connection &connection, const codec::standard::Disconnect &disconnect)
    REQUIRES(engine_mutex)
{
    if (!connection.session)
        return;
    if (!change_expiry(engine, *connection.session, disconnect.properties.session_expiry))
        return end_connection(engine, connection, Reason::ProtocolError);
    const bool with_will = is_failure(disconnect.reason) || disconnect.reason == Reason::DisconnectWithWill;
    drop_connection(engine, connection, with_will ? WithWill::Yes : WithWill::No); // [MQTT-3.14.4-3]
}

} // namespace

void handle_disconnect(const Incoming &incoming) noexcept
{
    Connection                 &connection = incoming.connection;
    codec::standard::Disconnect disconnect;
    if (const Verdict verdict = decode_disconnect(incoming.packet, connection.level, disconnect); !verdict.ok())
        return refuse_packet(connection, verdict);
    api::tell(*connection.record, BROKER_EVENT_DISCONNECTED);
    Turn turn;
    if (turn)
        accept(*turn, connection, disconnect);
}

// Only who named a method in CONNECT may send it, and such a CONNECT is refused [MQTT-4.12.0-6].
void handle_auth(const Incoming &incoming) noexcept
{
    codec::standard::Auth auth;
    const Verdict         verdict = decode_auth(incoming.packet, incoming.connection.level, auth);
    refuse_packet(incoming.connection,
                  verdict.ok() ? Verdict{Reason::ProtocolError, "AUTH without a method in CONNECT"} : verdict);
}

} // namespace tarn::standard
