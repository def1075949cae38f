// tls_psk.cpp - keeps and compares a pre-shared key. The caller owns the context; nothing here is shared.
#include "tls_psk.h"

#include <cstring>

namespace {

constexpr bool is_key_length(int32_t length) noexcept
{
    return length >= 1 && length <= TLS_PSK_KEY_MAX;
}

// Takes the same time wherever the first difference is, so that the time tells nothing about the key.
bool equal(const uint8_t *a, const uint8_t *b, uint32_t length) noexcept
{
    uint8_t difference = 0;
    for (uint32_t i = 0; i < length; ++i)
        difference = static_cast<uint8_t>(difference | (a[i] ^ b[i]));
    return difference == 0;
}

} // namespace

extern "C" int tls_psk_init(tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len, const uint8_t *identity,
                            uint32_t identity_len)
{
    if (!ctx || !key || !is_key_length(key_len))
        return 1;
    memset(ctx, 0, sizeof *ctx);
    ctx->key_len = static_cast<uint32_t>(key_len);
    memcpy(ctx->key, key, ctx->key_len);

    // An identity of a bad length is no error: the context just has none.
    if (identity && identity_len >= 1 && identity_len <= TLS_PSK_IDENTITY_MAX) {
        memcpy(ctx->identity, identity, identity_len);
        ctx->identity_len = identity_len;
    }
    return 0;
}

extern "C" int tls_psk_verify(const tls_psk_ctx_t *ctx, const uint8_t *key, int32_t key_len)
{
    if (!ctx || !key || static_cast<uint32_t>(key_len) != ctx->key_len || ctx->key_len > TLS_PSK_KEY_MAX)
        return 1;
    return equal(ctx->key, key, ctx->key_len) ? 0 : 1;
}

extern "C" const uint8_t *tls_psk_get_key(const tls_psk_ctx_t *ctx, uint32_t *len)
{
    if (!ctx || !len)
        return nullptr;
    *len = ctx->key_len;
    return ctx->key;
}

extern "C" const uint8_t *tls_psk_get_id(const tls_psk_ctx_t *ctx, uint32_t *len)
{
    if (!ctx || !len)
        return nullptr;
    *len = ctx->identity_len;
    return ctx->identity;
}

// Volatile, byte by byte: the compiler must not drop stores to memory that is about to be freed.
extern "C" void tls_psk_destroy(tls_psk_ctx_t *ctx)
{
    if (!ctx)
        return;
    auto *bytes = reinterpret_cast<volatile uint8_t *>(ctx);
    for (size_t i = 0; i < sizeof *ctx; ++i)
        bytes[i] = 0;
}
