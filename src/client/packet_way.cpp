// packet_way.cpp - which packets may keep a thread waiting, and so are served by a lane and not by the I/O thread.
//
//   CONNECT      a lane: the host's authentication callback may hash or ask elsewhere; the session's files are read,
//                written (its will) or deleted. Unless the host answers at once and there are no files, as long as the
//                round is a short one
//   SUBSCRIBE    a lane, unless the session is clean: the subscription file is written
//   the end      a lane where files are written: of a session with an expiry interval, or with a will
//   all others   the I/O thread, which waits for no disk (packet_scope.h)
//
// DISCONNECT is not answered, so what others send behind it counts on it: it is served at once, or a message for the
// client would find it still there and be lost. Behind answers that wait for the disk (held_answers.cpp) some of a
// client's packets wait, too.
//
// What goes aside for one client id is a group, and so is what would be served at once while one of the group is aside:
// a client that says DISCONNECT and comes back at once finds its session as the DISCONNECT left it, although the two
// are packets of two connections.
#include "../base/text.h"
#include "../codec/codec.hpp"
#include "../handler/handler.hpp"
#include "client_internal.h"

namespace tarn::client {
namespace {

// Ids that the broker makes up may be alike, so these clients log in one after another.
constexpr char kMadeUpIds[] = "auto_";

net::Choice aside(const char *client_id)
{
    return {net::Way::Aside, hash_of(client_id)};
}

net::Choice in_turn(const char *client_id)
{
    return net::is_aside(hash_of(client_id)) ? aside(client_id) : net::Choice{};
}

net::Choice way_of_connect(std::span<const uint8_t> packet)
{
    const codec::ConnectPeek asked = codec::peek_connect(packet);
    client_id_text           id;
    id.text[asked.client_id.copy(id.text, CLIENT_ID_CHARS)] = '\0';
    if (!id.text[0])
        return aside(kMadeUpIds);
    const bool is_quick = !net::round_is_long() && handler::is_quick_connect(id.text, asked.is_clean);
    return is_quick ? in_turn(id.text) : aside(id.text);
}

// A session without an expiry interval is only deleted. A will is routed like a publication, and writes a file where the
// session is kept.
bool end_writes_files(mqtt_client_t &client)
{
    return !client.clean_session && (client.session_expiry_interval != 0 || peek(client.will_msg_used));
}

net::Choice way_of_end(net::Connection connection)
{
    const client_ref client = find_client_by_handle(connection.handle);
    if (!client)
        return {};
    const client_id_text id = id_of(*client);
    return end_writes_files(*client) ? aside(id.text) : in_turn(id.text);
}

// A client whose first packet it is has no record yet, and a session without id, which is kept.
net::Choice way_of_subscribe(net::Connection connection)
{
    const client_ref client = find_client_by_handle(connection.handle);
    if (client && client->clean_session)
        return {};
    return aside(client ? id_of(*client).text : "");
}

net::Choice way_of_disconnect(net::Connection connection)
{
    const client_ref client = find_client_by_handle(connection.handle);
    return in_turn(client ? id_of(*client).text : "");
}

} // namespace

net::Choice way_of(net::Connection connection, std::span<const uint8_t> packet) noexcept
{
    if (const client_ref client = find_client_by_handle(connection.handle); client && waits_for_disk(*client, packet))
        return {net::Way::Later};
    if (packet.empty())
        return way_of_end(connection);
    switch (packet[0] >> 4) {
    case CONNECT:
        return way_of_connect(packet);
    case SUBSCRIBE:
        return way_of_subscribe(connection);
    case DISCONNECT:
        return way_of_disconnect(connection);
    default:
        return {};
    }
}

} // namespace tarn::client
