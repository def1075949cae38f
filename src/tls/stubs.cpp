#pragma GCC diagnostic ignored "-Wunused-parameter"
// Weak stand-ins that let the whole library link while the modules are being written.
#include "tls_psk.h"
extern "C" {
__attribute__((weak)) int tls_psk_init(tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len, const uint8_t *identity, uint32_t identity_len) { return {}; }
__attribute__((weak)) int tls_psk_verify(const tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len) { return {}; }
__attribute__((weak)) const uint8_t *tls_psk_get_key(const tls_psk_ctx_t *ctx, uint32_t *len) { return {}; }
__attribute__((weak)) const uint8_t *tls_psk_get_id(const tls_psk_ctx_t *ctx, uint32_t *len) { return {}; }
__attribute__((weak)) void tls_psk_destroy(tls_psk_ctx_t *ctx) {}
}
