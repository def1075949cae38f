/*
 * packet_handler.h - what the broker does with MQTT packets, and the routes a message can take.
 *
 * The module owns the generator of packet identifiers; all else it works on belongs to others: clients, subscriptions,
 * retained messages, pending deliveries, files. The network callback (client.h) hands it every packet and asks it for
 * wills; the exported API publishes the host's messages through it and says DISCONNECT.
 *
 *   threads   any, at once; packets of one client by one thread at a time, as the network layer hands them over
 *   locks     none may be held by the caller: these functions run the host's callbacks, write files, look up, send to
 *             and close clients. Where no callback runs it is said.
 *   clients   not owned; null is ignored unless a function says otherwise
 *   memory    what is passed in is copied, or only read during the call
 *   log       at DEBUG every step; INFO, WARN and ERROR lines name each packet, each receiver and each failure
 */
#ifndef TARN_HANDLER_PACKET_HANDLER_H
#define TARN_HANDLER_PACKET_HANDLER_H

#include "../client/client_types.h"

TARN_API_BEGIN

/* ---------------------------------------------------------------------------------------------------------- globals */

extern tarn_mutex_t msgid_mutex; /* a leaf; valid from load to exit: never initialised or destroyed */

/* State of the generator of packet identifiers, as of rand_r(). 0 = take the time in seconds at the next draw. */
/* clang-format off */
extern uint32_t msgid_seed TARN_GUARDED_BY(msgid_mutex);
/* clang-format on */

/* ------------------------------------------------------------------------------------------------------ up and down */

/*
 * Prepares subscriptions and retained messages (sub_init, which empties them) and pending deliveries
 * (qos_reliable_init). No callback.
 *
 *   returns   0, with one INFO line
 *             -1   too little memory, with one FATAL line, or no thread could be created, with one ERROR line; what was
 *                  prepared stays
 */
int packet_handler_init(void);

/*
 * Ends pending deliveries (qos_reliable_destroy) and persistence (persist_destroy). Subscriptions stay. No callback.
 *
 *   returns   0 always
 */
int packet_handler_deinit(void);

/* --------------------------------------------------------------------------------------------- packets from clients */

/*
 * Handles one packet: counts it as received and the client as active, decodes it, asks and tells the host's callbacks,
 * routes, saves and answers, as its type wants. The client's state is not asked: any packet is handled at any time.
 *
 *   client    not null
 *   buf       not null; exactly one packet, from its first byte
 *   len       in bytes, 1 or more. Above the client's max_packet_size a 5.0 client gets DISCONNECT with reason 0x95,
 *             and the client is closed [MQTT-3.1.2-24].
 *   returns   0    handled; also for a type that is not for a broker to receive, with one WARN line
 *             -1   a bad argument, too long a packet, one that does not decode (counted, not answered), refused by the
 *                  host, or too little memory; one ERROR or WARN line
 */
int packet_dispatch(mqtt_client_t *client, const uint8_t *buf, uint32_t len);

/* ------------------------------------------------------------------------------------- messages of the broker's own */

/*
 * Publishes a message of the host's to all subscribers, those with a saved session that are away included. Each gets it
 * at the lower of the two QoS [MQTT-3.8.4-8]. Neither access control nor events. Few lines.
 *
 *   topic            not null; kept whole where it is retained, sent cut at 255 characters; wildcards are not checked
 *   payload          not null
 *   payload_len      bytes, 1 or more; cut at CODEC_PAYLOAD_MAX
 *   qos              0..2
 *   retain           bit 0: keep the message for later subscribers [MQTT-3.3.1-5]; handed on to subscribers as it is
 *   message_expiry   s that the kept message lives, told to 5.0 subscribers; 0 = not said
 *   returns          0, also when nobody subscribed
 *                    -1   a bad argument, or too little memory; without a line
 */
int packet_handler_broker_publish(const char *topic, const uint8_t *payload, int payload_len, uint8_t qos,
                                  uint8_t retain, uint32_t message_expiry);

/*
 * Sends an encoded PUBLISH to all subscribers that are online. How wills travel. No callback.
 *
 *   packet    not null; its remaining length is taken to be one byte, and its topic is cut at CODEC_TOPIC_MAX
 *   len       of packet in bytes, 4 or more
 *   is_will   flag: deliveries at QoS 1 and 2 are sent once and not tracked
 *
 * A bad argument or too little memory: one ERROR line, and nobody gets it.
 */
void packet_handler_broadcast_msg(const uint8_t *packet, uint32_t len, uint8_t is_will);

/*
 * Sends the test message "Hello from MQTT Broker!" to topic "broker/test" at QoS 1, unless there was one in the last
 * ten seconds, or packet_handler_init is not ten seconds ago. The broker itself does not call this. No callback.
 */
void packet_handler_publish_test_msg(void);

/*
 * Sends a client the retained messages whose topics match a filter, each at its own QoS and with the retain flag
 * [MQTT-3.3.1-8]. They are not tracked. One INFO line each. No callback.
 *
 *   filter    null is ignored; as subscribed, "$share/group/" included
 *
 * Holds g_sub_mgr.lock during the whole call.
 */
void send_retained_msg_to_client(mqtt_client_t *client, const char *filter);

/*
 * Hands a client that came back the messages kept in its files: adds them to pending deliveries, whose scan sends them
 * about a second later, and empties the message file. Those of QoS 0 are lost. Does nothing for a client that is not
 * online, has a clean session, or has no id. No callback.
 */
void packet_handler_restore_offline_msgs(mqtt_client_t *client);

/* ------------------------------------------------------------------------------------------------------------ wills */

/*
 * Publishes a client's will now [MQTT-3.1.2-8]: counts it, calls the event callback, marks it sent in the record, and
 * saves the session of a client that wants it kept.
 *
 *   returns   0    published, also when nobody subscribed
 *             -1   null, no will or one that was sent before (no line), too little memory, or it could not be encoded
 *                  (one ERROR line)
 */
int packet_send_will_message(mqtt_client_t *client);

/*
 * Starts a client's will at the end of its connection: publishes it, or with a delay notes when it is due, which
 * client_will_delay_scan looks at [MQTT 5.0 3.1.3.2.2]. Without a will, or with one that was sent, one WARN line; for
 * null one ERROR line. Any thread that has the closing of the client.
 */
void packet_start_will_delay(mqtt_client_t *client);

/*
 * Calls off a client's delayed will; the will itself stays in the record. One INFO line. No callback. A record that is
 * closed already and waited for this will is not released: it keeps its place until it is closed once more.
 */
void packet_cancel_will(mqtt_client_t *client);

/* ------------------------------------------------------------------------------------------ the end of a connection */

/*
 * Drops the pending deliveries of a client and, with a clean session, its subscriptions [MQTT-3.1.2-6]. No callback.
 *
 *   client_id       null and empty are ignored; cut at 255 characters
 *   clean_session   flag; 0 lets subscriptions stay
 */
void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session);

/*
 * Sends DISCONNECT, gives it 10 ms to leave, then sends what is still queued. The caller closes the client next. One
 * without a handle is ignored. No callback.
 *
 *   reason_code   of 5.0 [MQTT-3.14.2-1]; a 3.1.1 client gets the packet without it
 */
void packet_handler_send_disconnect(mqtt_client_t *client, uint8_t reason_code);

TARN_API_END

#endif
