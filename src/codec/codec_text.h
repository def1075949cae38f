// codec_text.h - what a codec result means, for log lines that print it beside the number.
#ifndef TARN_CODEC_CODEC_TEXT_H
#define TARN_CODEC_CODEC_TEXT_H

namespace tarn::codec {

const char *error_text(int code) noexcept; // "未知错误" for a code that is no failure of the codec

} // namespace tarn::codec

#endif
