/*
 * tls_psk.h - a place for a TLS pre-shared key and its identity, for hosts that terminate TLS themselves.
 *
 * The module owns nothing: a context is the caller's memory, on the stack or wherever. The broker does not use it.
 *
 *   threads   any; a context that is shared must not be changed while another thread reads it
 *   locks     none taken, none needed
 *   memory    what is passed in is copied; pointers that are returned point into the context
 *   log       nothing
 */
#ifndef TARN_TLS_TLS_PSK_H
#define TARN_TLS_TLS_PSK_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

/* A key and whom it belongs to. All zero = no key. Bytes behind the lengths are zero after tls_psk_init. */
typedef struct {
    uint8_t  key[TLS_PSK_KEY_MAX];
    uint8_t  identity[TLS_PSK_IDENTITY_MAX]; /* not NUL-terminated when full */
    uint32_t key_len;                        /* bytes, 1..TLS_PSK_KEY_MAX; 0 = no key */
    uint32_t identity_len;                   /* bytes, 0..TLS_PSK_IDENTITY_MAX; 0 = no identity */
} tls_psk_ctx_t;

/*
 * Fills a context, whatever it held.
 *
 *   ctx           not null
 *   key           not null
 *   key_len       bytes, 1..32
 *   identity      may be null: no identity
 *   identity_len  bytes, 1..16; any other length leaves the identity empty, which is no error
 *   returns       0, or 1 for a wrong ctx, key or key_len; then the context is as it was
 */
int tls_psk_init(tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len, const uint8_t *identity,
                 uint32_t identity_len);

/*
 * Compares a key with the stored one, in a time that does not depend on where they differ.
 *
 *   ctx       filled; null is never equal
 *   key       null is never equal
 *   key_len   bytes
 *   returns   0 when length and bytes are equal, else 1
 */
int tls_psk_verify(const tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len);

/*
 * The stored key.
 *
 *   len       not null; gets the length in bytes
 *   returns   the bytes, not terminated, inside ctx and valid as long as it is; null when an argument is null
 */
const uint8_t *tls_psk_get_key(const tls_psk_ctx_t *ctx, uint32_t *len);

/*
 * The stored identity; as tls_psk_get_key. The length is 0 when there is none.
 */
const uint8_t *tls_psk_get_id(const tls_psk_ctx_t *ctx, uint32_t *len);

/*
 * Overwrites a context with zeros, in a way the compiler does not leave out. Null is ignored; nothing is freed.
 */
void tls_psk_destroy(tls_psk_ctx_t *ctx);

TARN_API_END

TARN_LAYOUT_SIZE(tls_psk_ctx_t, 56);
TARN_LAYOUT_FIELD(tls_psk_ctx_t, key, 32);
TARN_LAYOUT_FIELD(tls_psk_ctx_t, identity, 16);

#endif
