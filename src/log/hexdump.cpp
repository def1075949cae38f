// hexdump.cpp - raw bytes as DEBUG lines of sixteen, without offsets or text columns.
#include "log.h"

#include <algorithm>

namespace tarn::log {
namespace {

constexpr size_t kRowBytes   = 16;
constexpr size_t kColumnSize = 3; // two digits and a blank

void log_row(const uint8_t *bytes, size_t count) noexcept
{
    static constexpr char kDigits[] = "0123456789ABCDEF";

    char row[kRowBytes * kColumnSize + 1] = "";
    for (size_t i = 0; i < count; ++i) {
        row[i * kColumnSize]     = kDigits[bytes[i] >> 4];
        row[i * kColumnSize + 1] = kDigits[bytes[i] & 0xF];
        row[i * kColumnSize + 2] = ' ';
    }
    write(AGENT_LOG_DEBUG, "%s", row);
}

} // namespace

void write_bytes(const char *title, std::span<const uint8_t> bytes) noexcept
{
    if (!bytes.data() || bytes.empty() || !log_passes(AGENT_LOG_DEBUG))
        return;
    if (title)
        write(AGENT_LOG_DEBUG, "%s", title);
    for (size_t at = 0; at < bytes.size(); at += kRowBytes)
        log_row(bytes.data() + at, std::min(kRowBytes, bytes.size() - at));
}

} // namespace tarn::log
