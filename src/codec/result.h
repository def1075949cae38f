// result.h - what became of a call of the codec, as log lines print it.
#ifndef TARN_CODEC_RESULT_H
#define TARN_CODEC_RESULT_H

#include "mqtt_codec_types.h"

namespace tarn::codec {

enum class [[nodiscard]] Result : int{
    Ok = CODEC_OK,           BadArgument = CODEC_E_PARAM,   BadLevel = CODEC_E_VERSION,
    NoRoom = CODEC_E_BUFFER, Malformed = CODEC_E_MALFORMED, Unsupported = CODEC_E_UNSUPPORTED,
};
[[nodiscard]] constexpr bool failed(Result result) noexcept
{
    return result != Result::Ok;
}
[[nodiscard]] constexpr int code_of(Result result) noexcept
{
    return static_cast<int>(result);
}

} // namespace tarn::codec

#endif
