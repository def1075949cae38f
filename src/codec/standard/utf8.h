// utf8.h - the texts of MQTT: UTF-8 without U+0000 (5.0 and 3.1.1: 1.5.3/1.5.4).
#ifndef TARN_CODEC_STANDARD_UTF8_H
#define TARN_CODEC_STANDARD_UTF8_H

#include <string_view>

namespace tarn::codec::standard {

// Well-formed UTF-8 as Unicode has it: shortest forms, no surrogates [MQTT-1.5.4-1], up to U+10FFFF; and no U+0000
// [MQTT-1.5.4-2]. U+FEFF is a character like others [MQTT-1.5.4-3], control characters and non-characters pass.
[[nodiscard]] bool is_utf8(std::string_view text) noexcept;

} // namespace tarn::codec::standard

#endif
