// calls.h - codec calls as tests write them: packet or record in; result, record, context and log lines out.
#ifndef TARN_TESTS_CODEC_CALLS_H
#define TARN_TESTS_CODEC_CALLS_H

#include "codec/mqtt_codec.h"
#include "support/log_capture.h"
#include "support/wire.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

using Log = std::vector<LogLine>;

inline Log loud(Log log) // WARN and above
{
    std::erase_if(log, [](const LogLine &line) { return rank_of(line) < 2; });
    return log;
}

// A text of so many characters, without a terminator when they fill the array.
template <size_t N> void fill(char (&array)[N], size_t length = N)
{
    memset(array, 0, N);
    memset(array, 'x', length);
}

inline std::string pointer(const void *p) // as a log line prints it
{
    return printed("%p", p);
}

// Zeroes with padding, to compare bytewise. In place, because a copy may leave the padding behind.
template <class Record> void clear(Record &record)
{
    memset(&record, 0, sizeof record);
}

// A context that shows which of its words a call wrote.
inline mqtt_codec_ctx_t context(uint32_t version)
{
    return {version, 77, 78, {1, 2, 3, 4, 5, 6, 7, 8}};
}
inline bool untouched(const mqtt_codec_ctx_t &ctx)
{
    return ctx.last_packet_type == 77 && ctx.last_packet_len == 78;
}

template <class Record> struct Decoded {
    int              code     = 99;
    int              consumed = 99; // *buf_len afterwards
    Record           para;
    mqtt_codec_ctx_t ctx;
    Log              log; // loud lines only
    Log              all;
};

// Decodes a copy whose end is the end of its heap block, into a record full of garbage.
template <class Record>
Decoded<Record> decode_with(int (*decoder)(mqtt_codec_ctx_t *, const uint8_t *, int *, Record *), const Bytes &packet,
                            uint32_t version, uint32_t log_level = 0)
{
    Decoded<Record> out;
    memset(&out.para, 0xEE, sizeof out.para);
    out.ctx      = context(version);
    out.consumed = static_cast<int>(packet.size());
    std::unique_ptr<uint8_t[]> input(new uint8_t[packet.size()]);
    std::copy(packet.begin(), packet.end(), input.get());

    LogCapture log(log_level);
    out.code = decoder(&out.ctx, input.get(), &out.consumed, &out.para);
    out.all  = log.take();
    out.log  = loud(out.all);
    return out;
}

struct Encoded {
    int              code   = 99;
    int              length = 99; // *buf_len afterwards
    Bytes            buffer;      // all of it
    mqtt_codec_ctx_t ctx;
    Log              log; // loud lines only
    Log              all;

    // The packet's length, or the result of a failure: that leaves the capacity in *buf_len, which can be the same.
    int written() const { return code == 0 ? length : code; }

    std::string packet() const { return hex(Bytes(buffer.begin(), buffer.begin() + length)); }
    bool        rest_is_zero(size_t from) const
    {
        for (size_t i = from; i < buffer.size(); ++i)
            if (buffer[i] != 0)
                return false;
        return true;
    }
};

// Encodes into a heap block of exactly `capacity` bytes that held garbage.
template <class Record>
Encoded encode_with(int (*encoder)(mqtt_codec_ctx_t *, const Record *, uint8_t *, int *), const Record &para,
                    uint32_t version, int capacity, uint32_t log_level = 0)
{
    Encoded out;
    out.ctx    = context(version);
    out.length = capacity;
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[static_cast<size_t>(capacity)]);
    memset(buffer.get(), 0xEE, static_cast<size_t>(capacity));

    LogCapture log(log_level);
    out.code   = encoder(&out.ctx, &para, buffer.get(), &out.length);
    out.all    = log.take();
    out.log    = loud(out.all);
    out.buffer = Bytes(buffer.get(), buffer.get() + capacity);
    return out;
}

} // namespace tarn::test

#endif
