#include "codec/codec.hpp"

#include <climits>
#include <gtest/gtest.h>

static const char *error_text(int code)
{
    return tarn::codec::error_text(tarn::codec::Result{code});
}

TEST(codec_text, every_failure_has_its_text)
{
    EXPECT_STREQ(error_text(-1), "参数非法");
    EXPECT_STREQ(error_text(-2), "协议版本不支持");
    EXPECT_STREQ(error_text(-3), "缓冲区不足");
    EXPECT_STREQ(error_text(-4), "报文格式错误");
    EXPECT_STREQ(error_text(-5), "功能暂不支持");
}

TEST(codec_text, anything_else_is_unknown)
{
    for (const int code : {0, 1, 5, -6, -7, INT_MAX, INT_MIN})
        EXPECT_STREQ(error_text(code), "未知错误") << code;
}
