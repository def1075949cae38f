// acknowledge.cpp - PUBACK, PUBREC, PUBREL and PUBCOMP (3.4 to 3.7).
#include "engine.h"

namespace tarn::standard {

using codec::standard::Ack;
using codec::standard::Verdict;

namespace {

// What the journal must have on the disk before the client hears of it.
uint64_t position_for(const Engine &engine, const Session &session)
{
    return session.is_kept() ? engine.recorder.position() : 0;
}

void end_if_unexpected(Engine &engine, Connection &connection, const Acknowledged &acknowledged) REQUIRES(engine_mutex)
{
    if (acknowledged.outcome == Outcome::Unexpected)
        end_connection(engine, connection, Reason::ProtocolError);
    else if (connection.session->wants_filling())
        list_for_flush(engine, connection); // there may be room for more
}

struct ReceivedAck {
    PacketType type      = PUBACK;
    uint16_t   packet_id = 0;
    Reason     reason    = Reason::Success;
};

// Four bytes, or at 5.0 a fifth with the reason Success.
bool is_short(codec::standard::Bytes packet, codec::standard::Level level)
{
    constexpr size_t kShort = sizeof codec::standard::ShortAck::bytes;
    if (packet.size() == kShort)
        return packet[1] == kShort - 2;
    return level == codec::standard::Level::Mqtt5 && packet.size() == kShort + 1 && packet[1] == kShort - 1 &&
           packet[kShort] == static_cast<uint8_t>(Reason::Success);
}

// Most are short: for them the general decoder would take longer than all the rest.
Verdict read_ack(const Incoming &incoming, ReceivedAck &ack)
{
    const codec::standard::Bytes packet = incoming.packet;
    if (is_short(packet, incoming.connection.level) && (packet[2] != 0 || packet[3] != 0)) {
        ack = {codec::standard::type_of(packet[0]), static_cast<uint16_t>(packet[2] << 8 | packet[3]), Reason::Success};
        return {};
    }
    Ack           whole;
    const Verdict verdict = decode_ack(packet, incoming.connection.level, whole);
    ack                   = {whole.type, whole.packet_id, whole.reason};
    return verdict;
}

void on_pubrec(Engine &engine, Connection &connection, const ReceivedAck &ack) REQUIRES(engine_mutex)
{
    Session           &session      = *connection.session;
    const Acknowledged acknowledged = session.deliveries.pubrec(ack.packet_id, static_cast<uint8_t>(ack.reason));
    if (acknowledged.answer != Answer::Nothing)
        send_ack(engine, connection, PUBREL, ack.packet_id,
                 acknowledged.answer == Answer::Pubrel ? Reason::Success : Reason::PacketIdentifierNotFound,
                 position_for(engine, session));
    end_if_unexpected(engine, connection, acknowledged);
}

// PUBCOMP lets the client use the identifier again, so a file must know first that it is free.
void on_pubrel(Engine &engine, Connection &connection, const ReceivedAck &ack) REQUIRES(engine_mutex)
{
    Session   &session = *connection.session;
    const bool held    = session.incoming.release(ack.packet_id);
    if (held && session.is_kept() && !engine.recorder.released(session, ack.packet_id)) {
        (void)session.incoming.restore(ack.packet_id); // the client releases it again
        return end_connection(engine, connection, Reason::ServerBusy);
    }
    send_ack(engine, connection, PUBCOMP, ack.packet_id, held ? Reason::Success : Reason::PacketIdentifierNotFound,
             position_for(engine, session));
}

} // namespace

void handle_ack(const Incoming &incoming) noexcept
{
    Connection &connection = incoming.connection;
    ReceivedAck ack;
    if (const Verdict verdict = read_ack(incoming, ack); !verdict.ok())
        return refuse_packet(connection, verdict);
    Turn turn;
    if (!turn || !connection.session)
        return;
    Deliveries   &deliveries = connection.session->deliveries;
    const uint8_t reason     = static_cast<uint8_t>(ack.reason);
    switch (ack.type) {
    case PUBACK:
        return end_if_unexpected(*turn, connection, deliveries.puback(ack.packet_id, reason));
    case PUBREC:
        return on_pubrec(*turn, connection, ack);
    case PUBREL:
        return on_pubrel(*turn, connection, ack);
    default:
        return end_if_unexpected(*turn, connection, deliveries.pubcomp(ack.packet_id, reason));
    }
}

} // namespace tarn::standard
