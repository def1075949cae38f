#include "tls/tls_psk.h"

#include "support/wire.h"

#include <cstring>
#include <gtest/gtest.h>

using namespace tarn::test;

namespace {

const Bytes kKey      = wire("01 02 03 04 05 06 07 08 | 09 0A 0B 0C 0D 0E 0F 10 | 11 12 13 14 15 16 17 18 | "
                                  "19 1A 1B 1C 1D 1E 1F 20 | 21");
const Bytes kIdentity = text("identity-of-17-ch");

struct tls_psk : testing::Test {
    tls_psk_ctx_t ctx{};
    void start(int32_t key_len = 4) { ASSERT_EQ(tls_psk_init(&ctx, kKey.data(), key_len, kIdentity.data(), 8), 0); }
};

} // namespace

TEST_F(tls_psk, keeps_key_and_identity)
{
    memset(&ctx, 0xEE, sizeof ctx);
    EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), 4, kIdentity.data(), 8), 0);
    tls_psk_ctx_t expected{};
    memcpy(expected.key, "\1\2\3\4", 4);
    memcpy(expected.identity, "identity", 8);
    expected.key_len      = 4;
    expected.identity_len = 8;
    EXPECT_EQ(memcmp(&ctx, &expected, sizeof ctx), 0);
}

TEST_F(tls_psk, takes_keys_of_1_to_32_bytes)
{
    for (const int32_t good : {1, 2, 31, 32}) {
        EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), good, nullptr, 0), 0);
        EXPECT_EQ(ctx.key_len, static_cast<uint32_t>(good));
        EXPECT_EQ(memcmp(ctx.key, kKey.data(), static_cast<size_t>(good)), 0);
    }
    for (const int32_t bad : {0, 33, -1, INT32_MIN, INT32_MAX}) {
        const tls_psk_ctx_t before = ctx;
        EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), bad, kIdentity.data(), 8), 1) << bad;
        EXPECT_EQ(memcmp(&ctx, &before, sizeof ctx), 0);
    }
}

TEST_F(tls_psk, needs_context_and_key)
{
    start();
    const tls_psk_ctx_t before = ctx;
    EXPECT_EQ(tls_psk_init(nullptr, kKey.data(), 4, nullptr, 0), 1);
    EXPECT_EQ(tls_psk_init(&ctx, nullptr, 4, nullptr, 0), 1);
    EXPECT_EQ(memcmp(&ctx, &before, sizeof ctx), 0);
}

TEST_F(tls_psk, takes_identities_of_1_to_16_bytes_and_else_has_none)
{
    for (const uint32_t good : {1u, 15u, 16u}) {
        EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), 4, kIdentity.data(), good), 0);
        EXPECT_EQ(ctx.identity_len, good);
        EXPECT_EQ(memcmp(ctx.identity, kIdentity.data(), good), 0);
    }
    const uint8_t none[16] = {};
    for (const uint32_t bad : {0u, 17u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), 4, kIdentity.data(), bad), 0);
        EXPECT_EQ(ctx.identity_len, 0u) << bad;
        EXPECT_EQ(memcmp(ctx.identity, none, sizeof none), 0);
    }
    EXPECT_EQ(tls_psk_init(&ctx, kKey.data(), 4, nullptr, 8), 0);
    EXPECT_EQ(ctx.identity_len, 0u);
}

TEST_F(tls_psk, verifies_length_and_every_byte)
{
    start(32);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 32), 0);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 31), 1);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 33), 1);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), -1), 1);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 0), 1);
    for (size_t i = 0; i < 32; ++i) {
        Bytes other = kKey;
        other[i] ^= 0x80;
        EXPECT_EQ(tls_psk_verify(&ctx, other.data(), 32), 1) << i;
    }
}

TEST_F(tls_psk, verify_needs_both_arguments)
{
    start();
    EXPECT_EQ(tls_psk_verify(nullptr, kKey.data(), 4), 1);
    EXPECT_EQ(tls_psk_verify(&ctx, nullptr, 4), 1);
}

TEST_F(tls_psk, verify_never_reads_past_a_damaged_context)
{
    ctx.key_len = 33;
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 33), 1);
    ctx.key_len = 0xFFFFFFFF;
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), -1), 1);
}

TEST_F(tls_psk, shows_key_and_identity)
{
    start();
    uint32_t length = 99;
    EXPECT_EQ(tls_psk_get_key(&ctx, &length), ctx.key);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(tls_psk_get_id(&ctx, &length), ctx.identity);
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(tls_psk_get_key(nullptr, &length), nullptr);
    EXPECT_EQ(tls_psk_get_key(&ctx, nullptr), nullptr);
    EXPECT_EQ(tls_psk_get_id(nullptr, &length), nullptr);
    EXPECT_EQ(tls_psk_get_id(&ctx, nullptr), nullptr);
    EXPECT_EQ(length, 8u);
}

TEST_F(tls_psk, destroy_wipes_the_context)
{
    start(32);
    tls_psk_destroy(&ctx);
    const tls_psk_ctx_t empty{};
    EXPECT_EQ(memcmp(&ctx, &empty, sizeof ctx), 0);
    uint32_t length = 99;
    EXPECT_EQ(tls_psk_get_key(&ctx, &length), ctx.key);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(tls_psk_verify(&ctx, kKey.data(), 0), 0); // no bytes are equal to no bytes
    tls_psk_destroy(nullptr);
}
