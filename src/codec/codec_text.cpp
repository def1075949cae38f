// codec_text.cpp - what results of the codec are called in log lines.
#include "codec.hpp"

namespace tarn::codec {

const char *error_text(Result result) noexcept
{
    switch (result) {
    case Result::NoRoom:
        return "缓冲区不足";
    case Result::Unsupported:
        return "功能暂不支持";
    case Result::Malformed:
        return "报文格式错误";
    case Result::BadLevel:
        return "协议版本不支持";
    case Result::BadArgument:
        return "参数非法";
    default:
        return "未知错误";
    }
}

} // namespace tarn::codec
