// client_list.cpp - the two questions about all clients: who is online, and how many.
//
// Both look at every record of the pool, not at counters.
#include "client_internal.h"

#include <cstring>

namespace tarn::client {
namespace {

bool is_used_and_online(mqtt_client_t &client)
{
    return peek_acquire(client.used) && is_online(client);
}

} // namespace

// The text may end inside an id or behind a comma, where the buffer ends.
int32_t list_ids(char *buf, int32_t size) noexcept
{
    buf[0] = '\0';

    ScopedLock    lock(g_client_mgr.locks[0]);
    const int32_t limit = size - 1;
    int32_t       pos   = 0;
    int32_t       place = 0;
    while (pos < limit) {
        mqtt_client_t *const client = next_flagged(place);
        if (!client)
            break;
        if (!is_used_and_online(*client))
            continue;
        const client_id_text id = stored_id(*client);
        if (!id.text[0])
            continue;
        if (pos > 0)
            buf[pos++] = ',';
        for (const char *c = id.text; *c && pos < limit; ++c)
            buf[pos++] = *c;
        buf[pos] = '\0';
    }
    return pos;
}

uint32_t count_online() noexcept
{
    uint32_t count = 0;
    int32_t  place = 0;
    while (mqtt_client_t *const client = next_flagged(place))
        count += is_used_and_online(*client);
    return count;
}

} // namespace tarn::client
