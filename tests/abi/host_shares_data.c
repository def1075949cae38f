/*
 * A host that reads and edits the library's own records: there is one copy of each, whoever looks. It also has
 * functions called client_send, agent_log and sub_match, which are its own business.
 */
#define client_send the_librarys_client_send
#define agent_log the_librarys_agent_log
#define sub_match the_librarys_sub_match
#include "api/broker.h"
#include "client/client.h"
#include "codec/mqtt_codec.h"
#include "handler/packet_handler.h"
#include "log/agent_log.h"
#include "net/netip.h"
#include "stats/mqtt_stats.h"
#include "sub/sub.h"
#undef client_send
#undef agent_log
#undef sub_match

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int g_own_calls;
static int g_failures;

int client_send(int x);
int agent_log(int x);
int sub_match(int x);
int client_send(int x)
{
    return ++g_own_calls + x;
}
int agent_log(int x)
{
    return ++g_own_calls + x;
}
int sub_match(int x)
{
    return ++g_own_calls + x;
}

#define EXPECT(condition)                                                                                              \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                                    \
            ++g_failures;                                                                                              \
        }                                                                                                              \
    } while (0)

static void counters_are_shared(void)
{
    g_mqtt_stats.qos1 = 41;
    mqtt_stats_inc_qos(1);
    EXPECT(g_mqtt_stats.qos1 == 42);
}

static void slots_are_shared(void)
{
    netip_conn_t *slot = &g_netip_clients[5];
    slot->in_use       = 1;
    slot->type         = NETIP_TCP;
    slot->fd           = -1;
    slot->port         = 4711;
    EXPECT(netip_get_client_port(5) == 4711);
    memset(slot, 0, sizeof *slot);
}

static void the_loader_sees_the_same(void)
{
    EXPECT(dlsym(RTLD_DEFAULT, "g_mqtt_stats") == (void *)&g_mqtt_stats);
    EXPECT(dlsym(RTLD_DEFAULT, "g_netip_clients") == (void *)g_netip_clients);
    EXPECT(dlsym(RTLD_DEFAULT, "g_client_mgr") == (void *)&g_client_mgr);
}

/* The level that the host sets in the library's record is the one the library looks at. */
static void the_log_level_is_shared(broker_t *broker)
{
    tarn_sdk_mqtt_broker_set_log_level(broker, AGENT_LOG_ERROR);
    EXPECT(g_log_config.level == AGENT_LOG_ERROR);
    g_log_config.level = AGENT_LOG_DEBUG;
    tarn_sdk_mqtt_broker_set_keepalive_timeout(broker, 60); /* writes a line */
}

static void routing_calls_the_librarys_own(broker_t *broker)
{
    mqtt_client_t *client = client_create(7, "127.0.0.1", 4711, broker);
    EXPECT(client != NULL);
    if (!client)
        return;
    mqtt_codec_ctx_init(&client->codec);
    client->codec.version = 4;
    client->state         = CLIENT_LOGINED;
    client_set_cid(client, "someone");
    EXPECT(client_find_by_handle(7) == client);
    EXPECT(g_client_mgr.by_handle[7] == client);
    EXPECT(sub_add("someone", "a", 0, 1) == 0);
    EXPECT(g_sub_mgr.sub_count == 1);
    EXPECT(packet_handler_broker_publish("a", (const uint8_t *)"!", 1, 0, 0, 0) == 0);
    EXPECT(client->send_head != client->send_tail || g_mqtt_stats.pkt_tx != 0);
}

int main(void)
{
    counters_are_shared();
    slots_are_shared();
    the_loader_sees_the_same();

    broker_t *broker = tarn_sdk_mqtt_broker_create();
    EXPECT(broker && tarn_sdk_mqtt_broker_init(broker) == TARN_OK);
    the_log_level_is_shared(broker);
    EXPECT(client_mgr_init(100) == 0);
    routing_calls_the_librarys_own(broker);
    tarn_sdk_mqtt_broker_deinit(broker);
    tarn_sdk_mqtt_broker_destroy(broker);

    EXPECT(g_own_calls == 0);
    return g_failures != 0;
}
