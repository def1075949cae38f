/*
 * tarn_sdk_mqtt_broker.h - an MQTT 3.1.1 and 5.0 broker to embed.
 *
 * A host creates one broker, starts it, and from then on clients are served on port 1883 (TCP, and MQTT in single UDP
 * datagrams) by threads of the library. The host may look at the running broker, publish through it, and hook its own
 * rules into it with three callbacks.
 *
 *     broker_t *broker = tarn_sdk_mqtt_broker_create();
 *     tarn_sdk_mqtt_broker_init(broker);
 *     tarn_sdk_mqtt_broker_register_auth_callback(broker, my_rule);
 *     if (tarn_sdk_mqtt_broker_start(broker, 1883, 1000) == TARN_OK) {
 *         ... the host's own life ...
 *         tarn_sdk_mqtt_broker_stop(broker);
 *     }
 *     tarn_sdk_mqtt_broker_deinit(broker);
 *     tarn_sdk_mqtt_broker_destroy(broker);
 *
 * tarn_sdk_mqtt_broker.hpp is the same for hosts in C++.
 *
 * Life of an instance
 *
 *     create --> init --> start --> stop --> deinit --> destroy
 *                  ^        ^        |         |
 *                  |        +--------+         |
 *                  +---------------------------+
 *
 *   stop and start again: clients stay connected meanwhile and are served on.
 *   deinit, init and start again: clients are disconnected; what is on disk stays.
 *   The tables behind the functions belong to the process. Any number of instances may be created, but only one can
 *   serve: the one whose start succeeded, until some instance's deinit.
 *
 * Results
 *
 *   Functions that return int32_t return TARN_OK or a negative TARN_E_* code. A null instance gives TARN_E_PARAM and
 *   one ERROR line "[SDK] invalid broker handle", unless a function says that it does not use the instance: then it is
 *   neither checked nor touched. A function that fails has changed nothing, unless it says so.
 *
 * Memory
 *
 *   Texts and bytes that are passed in are copied before the call returns. Lists and records are written into memory
 *   of the caller. Nothing that is returned needs freeing, except the instance: destroy does that.
 *
 * Threads
 *
 *   init, start, stop, deinit and destroy may be called from any thread of the host; they wait for each other. All
 *   other functions may be called by several threads at once, at any time between create and destroy, and from inside
 *   a callback. So may the five, but while a thread of the host is inside one of them, a callback does not wait: init
 *   and start return TARN_E_BUSY and the others leave their work undone.
 *   The library's threads block all asynchronous signals, so the host's signal handlers run on the host's threads.
 *   After fork() the child must not use the library.
 *
 * Files, below the directory that is current when they are opened
 *
 *   ./broker_data/session/<client id>.json, and the same in subscription/ and message/    saved sessions
 *   ./broker_data/retain.dat                                                              retained messages
 *   ./broker_data/standard/                                                               both, in the standard profile
 *   ./tarn_flash.txt                     made, but hardly ever written: the log goes to standard output
 *
 * MQTT
 *
 *   By itself the broker has its native profile, made for its own clients: where it departs from the standard on
 *   purpose, docs/deviations.md says so. tarn_sdk_mqtt_broker_set_profile() makes it serve the standard profile
 *   instead, MQTT 3.1.1 and 5.0 as clients of any make speak it; what is different there stands behind the words
 *   "standard profile".
 *
 *   [MQTT-x.y.z-n] names a statement of the OASIS standard, version 5.0.
 */
#ifndef TARN_SDK_MQTT_BROKER_H
#define TARN_SDK_MQTT_BROKER_H

#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* An instance. Its fields are below, but only the functions change them. */
typedef struct broker_t broker_t;

/* A client as the broker keeps it. Hosts pass it on; client_types.h of the installed module headers has its fields. */
typedef struct mqtt_client_t mqtt_client_t;

/* What functions return. */
enum {
    TARN_OK            = 0,
    TARN_E_INIT        = -1, /* kept for the host, never returned */
    TARN_E_PARAM       = -2, /* a null instance, a null pointer, a number out of range */
    TARN_E_RESOURCE    = -3, /* too little memory, too few descriptors or threads, or the port is taken */
    TARN_E_NOT_RUNNING = -4, /* the standard profile does not serve */
    TARN_E_NOT_FOUND   = -5, /* no such client, no such topic */
    TARN_E_DENIED      = -6, /* the client belongs to another instance */
    TARN_E_BUSY        = -7, /* not while the broker runs */
    TARN_E_TIMEOUT     = -8  /* kept for the host, never returned */
};

/* What an event callback is told about. */
enum {
    BROKER_EVENT_CONNECTED    = 0, /* after the CONNACK of an accepted CONNECT */
    BROKER_EVENT_DISCONNECTED = 1, /* the client sent DISCONNECT; a connection that just ends tells nothing */
    BROKER_EVENT_PUBLISH      = 2, /* a PUBLISH came in and is allowed; before anybody receives it */
    BROKER_EVENT_SUBSCRIBE    = 3, /* a filter was granted */
    BROKER_EVENT_UNSUBSCRIBE  = 4, /* a filter was given up by UNSUBSCRIBE */
    BROKER_EVENT_WILL         = 5  /* a will message was published */
};

/* What the broker speaks; see tarn_sdk_mqtt_broker_set_profile. */
enum { TARN_PROFILE_NATIVE = 0, TARN_PROFILE_STANDARD = 1 };

/* What tarn_sdk_mqtt_broker_set_limit sets, with range and default. Bytes are those of memory. */
enum {
    /* of one client */
    TARN_LIMIT_QUEUED_MESSAGES        = 0, /* at QoS 1 and 2 that wait or are on the way, 1 or more; 100000 */
    TARN_LIMIT_QUEUED_BYTES           = 1, /* of them, 1..2^40; 64 MiB */
    TARN_LIMIT_QOS0_MESSAGES          = 2, /* that wait for a slow reader, 1 or more; 100000 */
    TARN_LIMIT_QOS0_BYTES             = 3, /* of them, 1..2^40; 64 MiB */
    TARN_LIMIT_WILDCARD_SUBSCRIPTIONS = 4, /* 0 or more; 1000. Each costs every publication a look. */
    TARN_LIMIT_SUBSCRIPTIONS          = 5, /* those with wildcards too, 1 or more; 10000 */
    TARN_LIMIT_RECEIVE_MAXIMUM        = 6, /* its publications at QoS 2 that may be open, 1..65535; 1000 */
    TARN_LIMIT_SESSION_EXPIRY         = 7, /* s that its session outlives its connection; 4294967295 = for ever */
    /* of all clients */
    TARN_LIMIT_SESSIONS          = 8,  /* that outlive their connections, 1 or more; 100000 */
    TARN_LIMIT_RETAINED_MESSAGES = 9,  /* 100000 */
    TARN_LIMIT_RETAINED_BYTES    = 10, /* of them, 0..2^40; 256 MiB */
    TARN_LIMIT_CONNECT_TIMEOUT   = 11  /* ms in which a new connection has to say CONNECT, 100..3600000; 30000 */
};

/* What an access-control callback is asked about. */
enum { BROKER_ACL_SUBSCRIBE = 0, BROKER_ACL_PUBLISH = 1 };

/*
 * Callbacks
 *
 * They run on the library's threads in the middle of packet handling, several at once, and also on the host's own thread
 * inside kick and deinit, which close clients. What they share they have to guard. The packets of one client wait for
 * each other, and so do CONNECTs with the same id. An authentication callback may take its time, unless it was registered
 * as a quick one: other clients are served meanwhile, and up to three logins side by side; deinit waits for those under
 * way. The other two should be quick: one that takes its time may hold up every client. No lock of the library is held, so a callback may call the
 * functions below. `broker` is the instance the client came in through. Texts are UTF-8 as the client sent them,
 * unchecked, never null, and valid during the call only.
 */

/*
 * Tells that something happened. `kind` is a BROKER_EVENT_*; `text` is
 *     {"clientId":"...","topic":"...","qos":N}
 * cut at 255 characters. The topic is the filter for SUBSCRIBE and UNSUBSCRIBE, and empty for CONNECTED and
 * DISCONNECTED; qos is that of the message, for SUBSCRIBE the one granted, else 0. Ids and topics stand in it
 * unescaped, so a client can choose one with quotes in it and change what the text seems to say.
 */
typedef void (*broker_event_cb_t)(broker_t *broker, uint32_t kind, const char *text);

/*
 * Decides whether a CONNECT is accepted: true accepts it. `client_id` is what the client sent (up to 64 characters,
 * empty when the broker is to choose); `username` and `password` are empty when absent. A refused 5.0 client gets
 * CONNACK with reason 0x86, a refused 3.1.1 client gets one with code 0, and the connection is closed [MQTT-3.2.2-7].
 *
 * Packets that come before a CONNECT are handled without asking this callback. A host that relies on passwords refuses
 * clients with an empty id in its access-control callback as well.
 *
 * Standard profile: nothing is handled before a CONNECT, and a refused 3.1.1 client gets code 4. `client_id` is the id
 * as the other callbacks and lists have it: chosen by then if the client sent none, and above 63 bytes, or with a ~ in
 * front, as ~ and 32 hexadecimal digits.
 */
typedef bool (*broker_auth_cb_t)(broker_t *broker, const char *client_id, const char *username, const char *password);

/*
 * Decides whether a client may publish to a topic (action BROKER_ACL_PUBLISH) or subscribe to a filter
 * (BROKER_ACL_SUBSCRIBE): true allows it. `client_id` is the id under which the client is known. A refused PUBLISH is
 * dropped and not acknowledged; a refused filter gets the SUBACK code 0x80. It is asked for every PUBLISH, so it should
 * be quick; it is not asked for wills. `client` is valid during the call only.
 *
 * Standard profile: a refused PUBLISH at QoS 1 or 2 is acknowledged, at 5.0 with reason 0x87, and nobody receives it; a
 * refused filter gets 0x87 at 5.0. The topic of a will is asked about during CONNECT, once the login is accepted; where
 * it is refused, so is the CONNECT.
 */
typedef bool (*broker_acl_cb_t)(broker_t *broker, const char *client_id, const char *topic, uint8_t action,
                                mqtt_client_t *client);

/* The instance; to be read, not written. While it runs other threads may change it. */
struct broker_t {
    uint8_t           running;           /* flag */
    int32_t           keepalive_timeout; /* s, 1..3600 */
    int32_t           max_packet_size;   /* bytes, 256..10485760 */
    broker_event_cb_t event_cb;
    broker_auth_cb_t  auth_cb;
    broker_acl_cb_t   acl_cb;
    int32_t           port; /* recorded and logged only: the sockets use 1883 */
    int32_t           max_clients;
    char              data_dir[256];
    pthread_t         thread; /* housekeeping, 0 = none */
};

/* What get_client_info tells. */
typedef struct {
    char     client_id[128];
    char     ip[64];       /* of the peer, as in "192.0.2.7" */
    uint16_t port;         /* of the peer */
    uint16_t keepalive;    /* s; what counts, 60 for a client that asked for 0 */
    uint8_t  online;       /* flag */
    uint32_t idle_seconds; /* since its last packet */
} tarn_sdk_mqtt_client_info_t;

/* What get_session_info tells. */
typedef struct {
    uint32_t subscriptions;
    uint8_t  online;   /* flag */
    uint8_t  kept;     /* flag: it outlives its connection, or has outlived it */
    uint8_t  has_will; /* flag: a will that is published when the connection ends, or after its delay */
} tarn_sdk_mqtt_session_info_t;

/* What get_stats tells. */
typedef struct {
    uint32_t online;         /* clients, counted now */
    uint32_t messages;       /* PUBLISH packets taken from clients since init */
    uint32_t subscriptions;  /* as of the last statistics update */
    uint32_t uptime_seconds; /* since init */
} tarn_sdk_mqtt_broker_stats_t;

/* -------------------------------------------------------------------------------------------------------- lifecycle */

/*
 * Makes an instance with the defaults: keep-alive timeout 300 s, largest packet 4096 bytes, port 1883, 5000 clients,
 * data below "./broker_data", no callbacks.
 *
 *   returns   the instance, to be given to destroy in the end; null when memory ran out
 *
 * Logging works from the moment the library is loaded, at level 0 on standard output; set_log_level(NULL, level) before
 * this call keeps its lines back.
 */
broker_t *tarn_sdk_mqtt_broker_create(void);

/*
 * Frees an instance; null is ignored. Call stop and deinit first: this ends the instance's housekeeping and callbacks,
 * but not the serving. Clients stay connected, and no other instance can start, until some instance's deinit.
 */
void tarn_sdk_mqtt_broker_destroy(broker_t *broker);

/*
 * Prepares the modules behind the broker: sets the log to level 2 (WARN) on standard output and in "tarn_flash.txt",
 * zeroes the statistics, empties the subscription table and the store of retained messages and fills both from the
 * files below ./broker_data, which is made if need be.
 *
 *   returns   TARN_OK; TARN_E_PARAM for a null instance; TARN_E_BUSY only inside a callback
 *
 * Files that cannot be read or made are no failure: the broker then serves without what they held. Called while an
 * instance serves, it acts on that one's tables; only start is safe beside a running broker.
 */
int32_t tarn_sdk_mqtt_broker_init(broker_t *broker);

/*
 * Begins to serve, or serves on after stop. Returns once the port is open.
 *
 *   port          1..65535; recorded and logged. The broker always listens on 1883, on all IPv4 interfaces.
 *   max_clients   1..11000; more clients than this are turned away. A second start may change it: a lower number
 *                 closes nobody.
 *   returns       TARN_OK; also for an instance that runs already
 *                 TARN_E_PARAM     null instance, port out of range, or max_clients outside 1..50000
 *                 TARN_E_RESOURCE  max_clients 11001..50000, another instance serves, port 1883 is taken, or the system
 *                                  lacks memory, descriptors or threads; what this call had begun is undone, the
 *                                  modules of init stay, and start may be tried again
 *                 TARN_E_BUSY      only inside a callback
 *
 * The listening socket, once open, is kept until the process ends, also over deinit: clients that connect meanwhile
 * wait and are served by the next start. Each client takes a descriptor; raise RLIMIT_NOFILE for many.
 */
int32_t tarn_sdk_mqtt_broker_start(broker_t *broker, int32_t port, int32_t max_clients);

/*
 * Ends the instance's housekeeping (keep-alive timeouts, delayed wills, expiry, reports) and lets the setters work
 * again. Clients stay connected, and their packets are handled on until deinit. Waits for the housekeeping thread, some
 * 10 ms at most.
 *
 *   returns   TARN_OK, also when the instance was not running; TARN_E_PARAM for a null instance
 */
int32_t tarn_sdk_mqtt_broker_stop(broker_t *broker);

/*
 * Ends serving: closes every client with its session and will as if its connection had broken, ends the library's
 * threads but the one that waits for connections, empties the tables, shuts the log and forgets the callbacks of this
 * instance. Wills that wait for their delay are dropped. The settings and the files stay. Call stop first: without it
 * is_running stays true and the setters stay refused.
 */
void tarn_sdk_mqtt_broker_deinit(broker_t *broker);

/*
 * Tells whether the instance was started and not stopped since; false for a null instance.
 */
bool tarn_sdk_mqtt_broker_is_running(broker_t *broker);

/* --------------------------------------------------------------------------------------------------------- settings */

/*
 * Sets which lines the library logs, at once and for the whole process.
 *
 *   broker    not used, may be null
 *   level     0 DEBUG (every packet in hex; slow), 1 INFO, 2 WARN, 3 ERROR, 4 FATAL; a larger number changes nothing
 *   returns   TARN_OK always
 *
 * init sets the level back to 2. Lines go to standard output, unflushed:
 *     [2026-01-31 23:59:59.042] [INFO] [SDK] start success, listen 0.0.0.0:1883
 */
int32_t tarn_sdk_mqtt_broker_set_log_level(broker_t *broker, uint32_t level);

/*
 * Sets after how much silence a connection is closed that has not said its own keep-alive, because it never sent a
 * CONNECT. One that did is closed after one and a half times its keep-alive [MQTT-3.1.2-22], or after 90 s when it
 * asked for 0. Silence is looked for every ten seconds, in a part of the clients each time.
 *
 *   seconds   1..3600; 300 from create
 *   returns   TARN_OK; TARN_E_PARAM for a null instance or a number out of range; TARN_E_BUSY while running
 */
int32_t tarn_sdk_mqtt_broker_set_keepalive_timeout(broker_t *broker, int32_t seconds);

/*
 * Sets the largest packet taken from, and sent to, a client that has not yet connected; a larger one ends its
 * connection. Takes effect with the next start, for new connections. With CONNECT a 3.1.1 client gets 4096, and a 5.0
 * client the Maximum Packet Size it announced, at least 256 [MQTT-3.1.2-24]. Whatever the number, packets of more than
 * 4096 bytes end the connection they come in on.
 *
 *   bytes     256..10485760; 4096 from create
 *   returns   TARN_OK; TARN_E_PARAM for a null instance or a number out of range; TARN_E_BUSY while running
 *
 * Standard profile: the largest packet taken from any client, which 5.0 clients are told; for the process, 10485760
 * where no instance has set another. What is sent to a client is as large as that client allows.
 */
int32_t tarn_sdk_mqtt_broker_set_max_packet_size(broker_t *broker, int32_t bytes);

/*
 * Chooses the profile of the process: which MQTT it speaks from the next start on.
 *
 *   profile   TARN_PROFILE_NATIVE    as without this call: for clients made for this broker, the same byte for byte in
 *                                    every version
 *             TARN_PROFILE_STANDARD  MQTT 3.1.1 and 5.0 as the standards have them, for clients of any make. TCP alone:
 *                                    port 1883 takes no datagrams then.
 *   returns   TARN_OK; TARN_E_PARAM for a null instance or an unknown profile; TARN_E_BUSY while running, or while any
 *             instance serves: stop and deinit come first
 *
 * What one profile keeps on disk the other does not see: the standard profile has ./broker_data/standard for itself.
 *
 * In the standard profile a client id may have any length. One of more than 63 bytes is known to callbacks, events,
 * lists and functions by a stored form, '~' and 32 hexadecimal digits, always the same for the same id.
 */
int32_t tarn_sdk_mqtt_broker_set_profile(broker_t *broker, uint32_t profile);

/*
 * Sets how much the standard profile keeps, for the process and from the next start on. What does not fit is refused
 * with a reason code where MQTT has one for it, else dropped and counted. Clients of the native profile have limits of
 * their own, docs/limits.md.
 *
 *   limit     TARN_LIMIT_*
 *   value     as said there; up to 4294967295 where nothing else is said
 *   returns   TARN_OK; TARN_E_PARAM for a null instance, an unknown limit or a value out of its range; TARN_E_BUSY
 *             while running, or while any instance serves
 */
int32_t tarn_sdk_mqtt_broker_set_limit(broker_t *broker, uint32_t limit, uint64_t value);

/* ------------------------------------------------------------------------------------------------------------ texts */

/* The version of the library, "V2.0.0". Constant. */
const char *tarn_sdk_mqtt_broker_version(void);

/* What a result means, in English: "OK", "Invalid parameter" ... "Unknown error" for any other number. Constant. */
const char *tarn_sdk_mqtt_broker_error_str(int32_t code);

/* ---------------------------------------------------------------------------------------------------------- queries
 * They describe one moment: by the time they return, a client may have come or gone. An id that is in use twice names
 * the later client; when that one has gone, the earlier is still listed, but cannot be named any more. */

/*
 * The number of clients online: with a connection on which a packet was received. `broker` is not used.
 */
uint32_t tarn_sdk_mqtt_broker_get_online_count(broker_t *broker);

/*
 * Lists the ids of the clients online, separated by commas and terminated, in no promised order.
 *
 *   broker    not used, may be null
 *   buf       gets the text, and zeros behind it; what does not fit is left out, the last id may be cut
 *   size      of buf in bytes, 1 or more; 64 for each client are enough
 *   returns   TARN_OK, also for an empty list; TARN_E_PARAM for a null buf or a size below 1
 */
int32_t tarn_sdk_mqtt_broker_get_client_id_list(broker_t *broker, char *buf, int32_t size);

/*
 * Describes one client of this instance.
 *
 *   client_id  up to 63 characters, exactly as in the list
 *   info       gets the description; untouched unless the result is TARN_OK
 *   returns    TARN_OK
 *              TARN_E_PARAM      a null argument
 *              TARN_E_NOT_FOUND  no client of that id
 *              TARN_E_DENIED     it came in through another instance; an ERROR line tells
 */
int32_t tarn_sdk_mqtt_broker_get_client_info(broker_t *broker, const char *client_id,
                                             tarn_sdk_mqtt_client_info_t *info);

/*
 * Describes the session of a client that is connected or away, in the standard profile.
 *
 *   broker     not used, may be null
 *   client_id  as in the list of clients
 *   info       gets the description; untouched unless the result is TARN_OK
 *   returns    TARN_OK
 *              TARN_E_PARAM        a null client_id or info
 *              TARN_E_NOT_FOUND    it has none
 *              TARN_E_NOT_RUNNING  the standard profile does not serve
 */
int32_t tarn_sdk_mqtt_broker_get_session_info(broker_t *broker, const char *client_id,
                                              tarn_sdk_mqtt_session_info_t *info);

/*
 * Reads the counters.
 *
 *   broker    not used, may be null
 *   stats     gets them
 *   returns   TARN_OK; TARN_E_PARAM for a null stats
 */
int32_t tarn_sdk_mqtt_broker_get_stats(broker_t *broker, tarn_sdk_mqtt_broker_stats_t *stats);

/*
 * Lists the topics of the retained messages, each followed by a newline, oldest first.
 *
 *   broker    not used, may be null
 *   buf       gets the text, terminated, and zeros behind it; a topic that does not fit as a whole is left out
 *   size      of buf in bytes, 1 or more; 257 for each topic are enough
 *   returns   TARN_OK, also for an empty list; TARN_E_PARAM for a null buf or a size below 1
 */
int32_t tarn_sdk_mqtt_broker_get_retain_topic_list(broker_t *broker, char *buf, int32_t size);

/* ---------------------------------------------------------------------------------------------------------- control */

/*
 * Closes one client of this instance. A 5.0 client is told so by DISCONNECT with reason 0x98, administrative action
 * [MQTT-3.14.2-1]. To the others it looks as if the connection had broken: the will is published [MQTT-3.1.2-8], a
 * saved session with an expiry interval stays, one of 3.1.1 ends. Subscriptions stay in any case, for whoever comes with
 * the id. Takes some 10 ms, so that the DISCONNECT can leave.
 *
 *   client_id  up to 63 characters, not empty
 *   returns    TARN_OK
 *              TARN_E_PARAM      a null argument or an empty id
 *              TARN_E_NOT_FOUND  no client of that id; a WARN line tells
 *              TARN_E_DENIED     it came in through another instance; an ERROR line tells
 *
 * Standard profile: the session stays for as long as the client asked, and its subscriptions with it.
 */
int32_t tarn_sdk_mqtt_broker_kick_client(broker_t *broker, const char *client_id);

/*
 * Publishes a message to all subscribers, as a client would. Subscribers that are away and have a saved session find it
 * when they come back, unless they would get it at QoS 0 [MQTT-4.5.0-1]. Neither the access-control nor the event
 * callback is called.
 *
 *   broker    not used, may be null
 *   topic     up to 255 characters, the rest is cut off; no wildcards, which nobody checks
 *   payload   not null
 *   len       of payload in bytes, 1 or more; up to 2048, the rest is cut off. Topic and payload together should not
 *             exceed 2035 bytes, or some subscribers get the message late or not at all.
 *   qos       0, 1 or 2; each subscriber gets the lower of this and what it was granted [MQTT-3.8.4-8]
 *   retain    bit 0: also keep the message for later subscribers [MQTT-3.3.1-5]
 *   expiry_s  seconds that the kept message lives [MQTT-3.3.2-5], also told to 5.0 subscribers; with 0 it lives seven
 *             days, or as long as the kept message that it replaces was to
 *   returns   TARN_OK, also when nobody subscribed or memory ran out; TARN_E_PARAM for a null pointer, a len below 1
 *             or a qos above 2
 *
 * Standard profile: topic and payload are taken whatever their length, and with 0 for expiry_s the message lives for
 * ever. TARN_E_PARAM also for a topic that is empty, has wildcards or is no UTF-8; TARN_E_RESOURCE when not all who
 * should have the message can keep it, clients that are away and the store of retained messages among them;
 * TARN_E_NOT_RUNNING before start and after deinit.
 */
int32_t tarn_sdk_mqtt_broker_publish(broker_t *broker, const char *topic, const void *payload, int32_t len,
                                     uint32_t qos, uint8_t retain, uint32_t expiry_s);

/*
 * Removes the retained message of exactly this topic, in memory and on disk.
 *
 *   broker    not used, may be null
 *   returns   TARN_OK; TARN_E_NOT_FOUND when there is none; TARN_E_PARAM for a null topic
 */
int32_t tarn_sdk_mqtt_broker_clear_retain(broker_t *broker, const char *topic);

/* -------------------------------------------------------------------------------------------------------- callbacks
 * Each replaces the one before; null switches it off. They may be set at any time after create and hold until deinit.
 * A call that is under way on another thread still goes to the old one. A null instance is ignored. */

/* Without one, nobody is told. */
void tarn_sdk_mqtt_broker_register_event_callback(broker_t *broker, broker_event_cb_t cb);

/* Without one, every CONNECT is accepted. */
void tarn_sdk_mqtt_broker_register_auth_callback(broker_t *broker, broker_auth_cb_t cb);

/*
 * The same for a callback that answers at once: it looks into a table in memory, say, and neither hashes a password nor
 * kicks a client nor waits for a file, a lock that is held for long, or another service. Logins of clients without files
 * are then no work for threads of their own, and neither are the CONNECTED events behind them: a connection costs a
 * quarter less. A callback that takes its time all the same holds up every client. Only the function that was registered
 * last in this way is a quick one, of whichever instance.
 */
void tarn_sdk_mqtt_broker_register_quick_auth_callback(broker_t *broker, broker_auth_cb_t cb);

/* Without one, everybody may publish and subscribe to everything. */
void tarn_sdk_mqtt_broker_register_acl_callback(broker_t *broker, broker_acl_cb_t cb);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
