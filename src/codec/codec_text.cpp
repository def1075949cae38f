// codec_text.cpp - what results of the codec are called in log lines.
#include "codec_text.h"

#include "mqtt_codec.h"

namespace tarn::codec {

const char *error_text(int code) noexcept
{
    switch (code) {
    case CODEC_E_BUFFER:
        return "缓冲区不足";
    case CODEC_E_UNSUPPORTED:
        return "功能暂不支持";
    case CODEC_E_MALFORMED:
        return "报文格式错误";
    case CODEC_E_VERSION:
        return "协议版本不支持";
    case CODEC_E_PARAM:
        return "参数非法";
    default:
        return "未知错误";
    }
}

} // namespace tarn::codec
