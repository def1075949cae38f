/*
 * The layout of every record a host may allocate or look into, as hosts were compiled with it. The headers assert the
 * same about themselves; these are the numbers of the binary interface, not to be changed together with a header.
 */
#include <tarn_sdk_mqtt_broker.h>

#include "api/broker.h"
#include "client/client.h"
#include "codec/mqtt_codec.h"
#include "handler/packet_handler.h"
#include "handler/shared_sub.h"
#include "log/agent_log.h"
#include "net/netip.h"
#include "persist/persist.h"
#include "qos/qos_reliable.h"
#include "stats/mqtt_stats.h"
#include "sub/retain.h"
#include "sub/sub.h"
#include "tls/tls_psk.h"

#ifdef __cplusplus
#define CHECK(condition) static_assert(condition, #condition)
#else
#define CHECK(condition) _Static_assert(condition, #condition)
#endif
#define SIZE(type, bytes) CHECK(sizeof(type) == (bytes))
#ifdef __cplusplus
#define FIELD(type, field, bytes) CHECK(sizeof(type::field) == (bytes))
#else
#define FIELD(type, field, bytes) CHECK(sizeof(((type *)0)->field) == (bytes))
#endif
#define OFFSET(type, field, byte) CHECK(offsetof(type, field) == (byte))

SIZE(mqtt_codec_ctx_t, 44);
SIZE(mqtt_connect_para_t, 2556);
SIZE(mqtt_connack_para_t, 16);
SIZE(mqtt_publish_para_t, 2332);
SIZE(mqtt_ack_para_t, 72);
SIZE(mqtt_subscribe_para_t, 4192);
SIZE(mqtt_unsubscribe_para_t, 4124);
SIZE(mqtt_disconnect_para_t, 144);
OFFSET(mqtt_connect_para_t, will_topic, 77);
OFFSET(mqtt_connect_para_t, will_payload, 334);
OFFSET(mqtt_connect_para_t, will_payload_len, 2384);
OFFSET(mqtt_connect_para_t, session_expiry_interval, 2540);
OFFSET(mqtt_publish_para_t, payload, 257);
OFFSET(mqtt_publish_para_t, payload_len, 2308);
OFFSET(mqtt_publish_para_t, msg_expiry_interval, 2324);
OFFSET(mqtt_ack_para_t, return_code_count, 68);
OFFSET(mqtt_subscribe_para_t, topic_filters, 2);
OFFSET(mqtt_subscribe_para_t, qos, 4116);
OFFSET(mqtt_subscribe_para_t, filter_count, 4180);
OFFSET(mqtt_unsubscribe_para_t, filter_count, 4116);
OFFSET(mqtt_disconnect_para_t, user_property, 76);

SIZE(persist_sub_t, 257);
SIZE(persist_msg_t, 1304);
SIZE(persist_session_t, 148896);
FIELD(persist_sub_t, topic, 256);
FIELD(persist_msg_t, topic, 256);
FIELD(persist_msg_t, payload, 1024);
FIELD(persist_session_t, client_id, 128);
FIELD(persist_session_t, will_topic, 256);
FIELD(persist_session_t, will_payload, 1024);
FIELD(persist_session_t, will_content_type, 64);
FIELD(persist_session_t, will_response_topic, 256);
FIELD(persist_session_t, will_correlation_data, 256);
OFFSET(persist_msg_t, payload, 258);
OFFSET(persist_msg_t, payload_len, 1284);
OFFSET(persist_msg_t, store_time, 1296);
OFFSET(persist_session_t, session_expiry_deadline, 136);
OFFSET(persist_session_t, will_topic, 153);
OFFSET(persist_session_t, will_len, 1436);
OFFSET(persist_session_t, subs, 2032);
OFFSET(persist_session_t, sub_count, 18480);
OFFSET(persist_session_t, msgs, 18488);
OFFSET(persist_session_t, msg_count, 148888);

SIZE(broker_t, 312);
OFFSET(broker_t, event_cb, 16);
OFFSET(broker_t, port, 40);
OFFSET(broker_t, data_dir, 48);
OFFSET(broker_t, thread, 304);
SIZE(tarn_sdk_mqtt_client_info_t, 204);
OFFSET(tarn_sdk_mqtt_client_info_t, port, 192);
OFFSET(tarn_sdk_mqtt_client_info_t, online, 196);
OFFSET(tarn_sdk_mqtt_client_info_t, idle_seconds, 200);
SIZE(tarn_sdk_mqtt_session_info_t, 8);
SIZE(tarn_sdk_mqtt_broker_stats_t, 16);

SIZE(client_send_slot_t, 4104);
SIZE(client_pool_block_t, 24);

SIZE(sub_entry_t, 2128);
FIELD(sub_entry_t, client_id, 65);
FIELD(sub_entry_t, topic_filter, 2049);
OFFSET(sub_entry_t, topic_filter, 65);
OFFSET(sub_entry_t, qos, 2116);
OFFSET(sub_entry_t, clean_session, 2120);
OFFSET(sub_entry_t, sub_identifier, 2124);
SIZE(retain_msg_t, 2336);
FIELD(retain_msg_t, topic, 257);
FIELD(retain_msg_t, payload, 2048);
OFFSET(retain_msg_t, payload, 257);
OFFSET(retain_msg_t, payload_len, 2308);
OFFSET(retain_msg_t, qos, 2312);
OFFSET(retain_msg_t, store_time, 2320);
OFFSET(retain_msg_t, expiry_interval, 2328);

SIZE(qos_packet_t, 336);
OFFSET(qos_packet_t, topic, 3);
OFFSET(qos_packet_t, payload, 264);
OFFSET(qos_packet_t, client, 304);
OFFSET(qos_packet_t, next, 328);

SIZE(mqtt_stats_t, 240);
OFFSET(mqtt_stats_t, retain_msg, 104);
OFFSET(mqtt_stats_t, persist_write, 128);
OFFSET(mqtt_stats_t, pool_usage, 152);
OFFSET(mqtt_stats_t, period_rx, 160);

SIZE(agent_log_config_t, 24);
OFFSET(agent_log_config_t, file_path, 16);
SIZE(tls_psk_ctx_t, 56);
FIELD(tls_psk_ctx_t, key, 32);
FIELD(tls_psk_ctx_t, identity, 16);

CHECK(sizeof g_netip_clients / sizeof g_netip_clients[0] == 11000);
CHECK(sizeof g_epoll_events / sizeof g_epoll_events[0] == 2048);

#if defined(__x86_64__) && defined(__LP64__) /* records that hold a mutex */
SIZE(netip_conn_t, 4264);
OFFSET(netip_conn_t, lock, 24);
OFFSET(netip_conn_t, peer, 64);
OFFSET(netip_conn_t, ip, 84);
OFFSET(netip_conn_t, port, 148);
OFFSET(netip_conn_t, rx_buf, 150);
OFFSET(netip_conn_t, rx_len, 4248);
OFFSET(netip_conn_t, pkt_len_known, 4256);
SIZE(mqtt_client_t, 149880);
OFFSET(mqtt_client_t, state, 136);
OFFSET(mqtt_client_t, broker, 168);
OFFSET(mqtt_client_t, codec, 176);
OFFSET(mqtt_client_t, send_queue, 224);
OFFSET(mqtt_client_t, send_lock, 240);
OFFSET(mqtt_client_t, used, 280);
OFFSET(mqtt_client_t, will_topic, 296);
OFFSET(mqtt_client_t, will_lock, 320);
OFFSET(mqtt_client_t, max_packet_size, 360);
OFFSET(mqtt_client_t, will_delay_deadline, 968);
OFFSET(mqtt_client_t, session, 984);
SIZE(client_mgr_t, 180472);
OFFSET(client_mgr_t, by_handle, 24);
OFFSET(client_mgr_t, by_cid, 88024);
OFFSET(client_mgr_t, locks, 176024);
OFFSET(client_mgr_t, running, 180464);
SIZE(sub_mgr_t, 72);
OFFSET(sub_mgr_t, lock, 32);
#endif
