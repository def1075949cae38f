/*
 * tls_psk.h - a place for a TLS pre-shared key and its identity, for hosts that terminate TLS themselves.
 */
#ifndef TARN_TLS_TLS_PSK_H
#define TARN_TLS_TLS_PSK_H

#include <stddef.h>
#include <stdint.h>
#include "../base/export.h"
#include "../base/limits.h"

TARN_API_BEGIN

typedef struct {
    uint8_t  key[32];
    uint8_t  identity[16]; /* not NUL-terminated when full */
    uint32_t key_len;
    uint32_t identity_len; /* 0 = no identity */
} tls_psk_ctx_t;

int            tls_psk_init(tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len, const uint8_t *identity,
                            uint32_t identity_len);
int            tls_psk_verify(const tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len); /* 0 = equal */
const uint8_t *tls_psk_get_key(const tls_psk_ctx_t *ctx, uint32_t *len);
const uint8_t *tls_psk_get_id(const tls_psk_ctx_t *ctx, uint32_t *len);
void           tls_psk_destroy(tls_psk_ctx_t *ctx);

TARN_API_END

TARN_LAYOUT_SIZE(tls_psk_ctx_t, 56);

#endif
