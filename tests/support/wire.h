// wire.h - packets as one writes them down: hex pairs, 'quoted text', and bars or blanks between fields.
#ifndef TARN_TESTS_WIRE_H
#define TARN_TESTS_WIRE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::test {

using Bytes = std::vector<uint8_t>;

// "10 0C | 00 04 'MQTT' 04 02 00 3C | 00 00". Ends the test program on anything else in the text.
Bytes wire(std::string_view text);

// The other way round, for messages: "10 0C 00 04 4D ...".
std::string hex(const Bytes &bytes);
std::string hex(const uint8_t *bytes, size_t count);

Bytes operator+(Bytes left, const Bytes &right);
Bytes text(std::string_view value);     // the characters alone
Bytes prefixed(std::string_view value); // 2-byte length and the characters
Bytes repeat(uint8_t value, size_t count);
Bytes u16(unsigned value);
Bytes packet(uint8_t first, const Bytes &body); // first byte, remaining length, body

} // namespace tarn::test

#endif
