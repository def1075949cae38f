/*
 * limits.h - the capacities, time limits and fixed sizes that others can meet, and how they depend on each other. What
 * only one file has to know, such as the length of a pause, stands in that file.
 *
 * Names end in their unit: _CHARS of a text without its terminator, _SIZE and _BYTES in bytes. A bare _MAX or _CAPACITY
 * counts elements, which for payloads and encoded packets are bytes.
 *
 * Records have these names as the sizes of their arrays, and every record's layout is asserted where it is declared: to
 * change a limit that stands in a record does not compile, because hosts were compiled with the old size.
 */
#ifndef TARN_BASE_LIMITS_H
#define TARN_BASE_LIMITS_H

#include "export.h"

enum {
    /* wire format */
    CODEC_BODY_MAX         = 2112,                   /* bytes behind the fixed header that an encoder can build */
    CODEC_SUBSCRIBE_MAX    = 1024,                   /* the same for SUBSCRIBE and UNSUBSCRIBE */
    CODEC_PUBLISH_MAX      = 1 + 2 + CODEC_BODY_MAX, /* largest encoded PUBLISH */
    CODEC_MIN_CAPACITY     = 128,                    /* smallest buffer that most encoders accept */
    CODEC_ENCODE_LEN_MAX   = 268435455,              /* four length bytes */
    CODEC_DECODE_LEN_MAX   = 2097151,                /* three length bytes */
    CODEC_FILTERS_MAX      = 16,                     /* of one packet, and codes of one SUBACK */
    CODEC_TOPIC_MAX        = 256,                    /* characters, of filters too */
    CODEC_PAYLOAD_MAX      = 2048,                   /* bytes */
    CODEC_CLIENT_ID_MAX    = 64,                     /* characters */
    CODEC_CLIENT_ID_V4_MAX = 23,                     /* the same at 3.1.1 */
    CODEC_CREDENTIAL_MAX   = 64,                     /* characters of a user name, bytes of a password */
    CODEC_REASON_MAX       = 64,                     /* characters of a DISCONNECT's texts */

    /* network */
    NETIP_CLIENTS_MAX    = 11000,
    NETIP_PORT           = 1883,
    NETIP_BACKLOG        = 65535,
    NETIP_RX_SIZE        = 4096, /* also the largest packet or datagram taken in */
    NETIP_SEND_MAX       = 4096,
    NETIP_IO_THREADS_MAX = 8,
    NETIP_EPOLL_EVENTS   = 2048,
    NETIP_EPOLL_WAIT_MS  = 100,
    NETIP_IP_CHARS       = 63, /* room for an address as text */

    /* clients */
    CLIENT_MAX             = 11000, /* also the size of both look-up tables */
    CLIENT_BLOCK_RECORDS   = 100,
    CLIENT_LOCKS           = 111,
    CLIENT_ID_CHARS        = 63,  /* what a record keeps of an id */
    CLIENT_SEND_SLOTS      = 100, /* one stays empty: 99 packets */
    CLIENT_SEND_SLOT_BYTES = 4096,
    CLIENT_WILL_MAX        = 2048, /* bytes of a will's payload */
    CLIENT_WILL_OVERDUE_MS = 30000,
    CLIENT_KEEPALIVE_0_MS  = 60000, /* what a keep-alive of 0 becomes */
    CLIENT_PACKET_DEFAULT  = 4096,  /* bytes; largest packet before CONNECT, unless the host sets another */
    CLIENT_V4_PACKET_MAX   = 4096,
    CLIENT_V5_PACKET_FLOOR = 256,
    CLIENT_CONTENT_CHARS   = 63,  /* of a will's content type */
    CLIENT_CORRELATION_MAX = 255, /* bytes of a will's correlation data */

    /* packet handling */
    PACKET_REPLY_SIZE         = 128,
    PACKET_DELIVERY_SIZE      = 2048, /* buffer of one outgoing delivery */
    PACKET_WILL_BUFFER_SIZE   = 4096,
    PACKET_SAVED_SUBS_MAX     = 32,
    PACKET_SAVED_FILTER_CHARS = 63,
    PACKET_SHARE_GROUP_CHARS  = 255, /* a shared group with a longer name has no turn of its own */

    /* subscriptions and retained messages */
    SUB_CAPACITY          = 10000,
    SUB_MATCH_CAPACITY    = 11000,
    SUB_FILTER_CHARS      = 2048, /* the rest of a filter is cut off */
    RETAIN_CAPACITY       = 1000,
    RETAIN_DEFAULT_LIFE_S = 604800,

    /* reliable delivery */
    QOS_PENDING_MAX    = 1000, /* entries of one client */
    QOS_PAYLOAD_MAX    = 2048,
    QOS_TOPIC_CHARS    = 255, /* the rest of a topic is cut off */
    QOS_FIRST_RETRY_MS = 1000,
    QOS_MAX_RETRY_MS   = 30000,
    QOS_RETRIES_MAX    = 5,
    QOS_SCAN_PERIOD_MS = 100,
    QOS_ENCODE_EXTRA   = 266, /* bytes of a retransmission buffer beyond the payload */

    /* files */
    PERSIST_ID_CHARS          = 127,
    PERSIST_TOPIC_CHARS       = 255, /* of a filter, a message's topic, a will's topics */
    PERSIST_SUBS_MAX          = 64,
    PERSIST_MSGS_MAX          = 100,
    PERSIST_MSG_PAYLOAD_MAX   = 1024, /* bytes */
    PERSIST_WILL_PAYLOAD_MAX  = 1024, /* bytes */
    PERSIST_CONTENT_CHARS     = 63,   /* of a will's content type */
    PERSIST_CORRELATION_MAX   = 256,  /* bytes */
    PERSIST_PATH_SIZE         = 512,
    PERSIST_RETAIN_READ_SIZE  = 256,  /* buffer of the path that retain.dat is read from: less than it is saved under */
    PERSIST_SESSION_TEXT_SIZE = 228,  /* buffer of the session file's text when it is written alone */
    PERSIST_SUB_TEXT_SIZE     = 288,  /* what each subscription written with it adds to that buffer */
    PERSIST_MSG_TEXT_SIZE     = 2368, /* the same for each message */
    PERSIST_TEXT_READ_MAX     = 2047, /* bytes read back from a session or subscription file */
    PERSIST_MSGS_READ_MAX     = 4095, /* bytes read back from a message file */
    PERSIST_MSG_OBJECT_MAX    = 1023, /* characters of one message object that are looked at */

    /* log */
    AGENT_LOG_LEVELS            = 5,
    AGENT_LOG_MESSAGE_CHARS     = 1022,    /* of one line on the console, without its time and level */
    AGENT_LOG_PRINTF_CHARS      = 255,     /* the same through agent_log_printf */
    AGENT_LOG_MAX_FILE_SIZE     = 1048576, /* bytes, default */
    AGENT_LOG_RESERVED_SIZE     = 256,     /* default */
    AGENT_LOG_RESERVED_SIZE_MAX = 1024,

    /* statistics */
    STATS_JSON_SIZE_MIN = 1024, /* smallest buffer for the JSON form */

    /* TLS pre-shared keys */
    TLS_PSK_KEY_MAX      = 32,
    TLS_PSK_IDENTITY_MAX = 16
};

/* ---- how they relate */
TARN_LAYOUT_CHECK(SUB_MATCH_CAPACITY >= SUB_CAPACITY);          /* a match list is never cut short */
TARN_LAYOUT_CHECK(CLIENT_SEND_SLOT_BYTES >= CODEC_PUBLISH_MAX); /* every encoded packet fits one send slot */
TARN_LAYOUT_CHECK(CLIENT_SEND_SLOT_BYTES <= NETIP_SEND_MAX);    /* every queued packet can be sent */
TARN_LAYOUT_CHECK(PACKET_WILL_BUFFER_SIZE >= CODEC_PUBLISH_MAX);
TARN_LAYOUT_CHECK(CLIENT_MAX == NETIP_CLIENTS_MAX); /* a handle is its own place in the look-up table */
TARN_LAYOUT_CHECK(CLIENT_MAX % CLIENT_BLOCK_RECORDS == 0);
TARN_LAYOUT_CHECK(NETIP_CLIENTS_MAX / CLIENT_BLOCK_RECORDS < CLIENT_LOCKS); /* one lock a hundred handles */
TARN_LAYOUT_CHECK(CLIENT_SEND_SLOTS >= 2 && CLIENT_SEND_SLOTS <= 255);      /* a place in the ring is one byte */
TARN_LAYOUT_CHECK(CLIENT_PACKET_DEFAULT <= NETIP_RX_SIZE);
TARN_LAYOUT_CHECK(NETIP_IP_CHARS >= 15); /* "255.255.255.255" */
TARN_LAYOUT_CHECK(CODEC_CLIENT_ID_V4_MAX <= CODEC_CLIENT_ID_MAX);
TARN_LAYOUT_CHECK(CODEC_SUBSCRIBE_MAX <= CODEC_BODY_MAX);
TARN_LAYOUT_CHECK(PACKET_DELIVERY_SIZE >= CODEC_MIN_CAPACITY);
TARN_LAYOUT_CHECK(QOS_ENCODE_EXTRA >= CODEC_MIN_CAPACITY); /* a retransmission of one byte fits its buffer */
TARN_LAYOUT_CHECK(QOS_TOPIC_CHARS <= CODEC_TOPIC_MAX);
TARN_LAYOUT_CHECK(CLIENT_WILL_MAX == CODEC_PAYLOAD_MAX);
TARN_LAYOUT_CHECK(QOS_PAYLOAD_MAX == CODEC_PAYLOAD_MAX);
TARN_LAYOUT_CHECK(CLIENT_ID_CHARS < CODEC_CLIENT_ID_MAX);
TARN_LAYOUT_CHECK(PACKET_SAVED_SUBS_MAX <= PERSIST_SUBS_MAX); /* what is saved can be read back */
TARN_LAYOUT_CHECK(PACKET_SAVED_FILTER_CHARS <= PERSIST_TOPIC_CHARS);
TARN_LAYOUT_CHECK(CODEC_TOPIC_MAX <= SUB_FILTER_CHARS);                    /* a filter from the wire is stored whole */
TARN_LAYOUT_CHECK(CODEC_CLIENT_ID_MAX <= PERSIST_ID_CHARS);                /* and so is an id */
TARN_LAYOUT_CHECK(PERSIST_WILL_PAYLOAD_MAX <= CLIENT_WILL_MAX);            /* a saved will can be taken over */
TARN_LAYOUT_CHECK(PERSIST_SESSION_TEXT_SIZE <= PERSIST_TEXT_READ_MAX + 1); /* a whole session file is read */
TARN_LAYOUT_CHECK(AGENT_LOG_RESERVED_SIZE <= AGENT_LOG_RESERVED_SIZE_MAX);
TARN_LAYOUT_CHECK(PACKET_REPLY_SIZE >= CODEC_MIN_CAPACITY);

#endif
