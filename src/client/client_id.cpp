// client_id.cpp - the id as it stands in a record: read and written under the record's id lock, so that other threads
// than the client's own get it whole. Who is found by an id is in lookup.cpp.
#include "../base/text.h"
#include "client_internal.h"

namespace tarn::client {

Mutex &id_mutex(const mqtt_client_t &client) noexcept
{
    return guards_of(client).id_mutex;
}

client_id_text stored_id(const mqtt_client_t &client) noexcept
{
    client_id_text id;
    ScopedLock     lock(id_mutex(client));
    copy_text(id.text, client.client_id, sizeof id.text - 1);
    return id; // cppcheck-suppress uninitvar ; copy_text wrote it
}

void store_id(mqtt_client_t &client, const char *client_id) noexcept
{
    ScopedLock lock(id_mutex(client));
    copy_text(client.client_id, client_id, CLIENT_ID_CHARS);
}

} // namespace tarn::client

// A released record shows no id, although its text stays until the last pin is gone.
tarn::client_id_text tarn::id_of(mqtt_client_t &client) noexcept
{
    if (!client.used && client::has_mark(client, client::kReleased))
        return {};
    return client::stored_id(client);
}
