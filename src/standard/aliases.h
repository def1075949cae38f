// aliases.h - topic aliases of one connection (5.0 3.3.2.3.4), both ways.
#ifndef TARN_STANDARD_ALIASES_H
#define TARN_STANDARD_ALIASES_H

#include "../base/memory.h"

#include <cstdint>
#include <string_view>

namespace tarn::standard {

// Those that a client set.
class IncomingAliases {
public:
    static constexpr uint16_t kMost = 32; // the Topic Alias Maximum that clients are told

    IncomingAliases()                                   = default;
    IncomingAliases(const IncomingAliases &)            = delete;
    IncomingAliases &operator=(const IncomingAliases &) = delete;
    ~IncomingAliases() { clear(); }

    [[nodiscard]] static constexpr bool is_valid(uint32_t alias) noexcept { return alias >= 1 && alias <= kMost; }

    // Of a valid alias. False without memory.
    [[nodiscard]] bool             set(uint32_t alias, std::string_view topic) noexcept;
    [[nodiscard]] std::string_view topic_of(uint32_t alias) const noexcept; // empty: it is not set
    void                           clear() noexcept;

private:
    struct Entry {
        char  *text;
        size_t size;
    };
    owned<Entry> entries_; // kMost, by alias - 1; empty until one is set
};

// Those that a client is sent: the first topics that come, as many as it takes.
class OutgoingAliases {
public:
    static constexpr uint16_t kMost     = 16;
    static constexpr size_t   kTopicMin = 4; // shorter topics gain nothing

    OutgoingAliases()                                   = default;
    OutgoingAliases(const OutgoingAliases &)            = delete;
    OutgoingAliases &operator=(const OutgoingAliases &) = delete;
    ~OutgoingAliases() { clear(); }

    void clear() noexcept;
    void set_maximum(uint32_t maximum) noexcept { most_ = maximum < kMost ? static_cast<uint16_t>(maximum) : kMost; }
    [[nodiscard]] bool are_taken() const noexcept { return most_ > 0; } // by the client

    struct Found {
        uint16_t alias  = 0;     // 0: none, the topic is to be sent
        bool     is_new = false; // the topic is to be sent beside it; remember() makes the client know it
    };
    [[nodiscard]] Found find(std::string_view topic) const noexcept;
    void                remember(std::string_view topic) noexcept; // under the alias that find() said

private:
    struct Entry {
        char  *text;
        size_t size;
    };
    owned<Entry> entries_;
    uint16_t     count_ = 0;
    uint16_t     most_  = 0;
};

} // namespace tarn::standard

#endif
