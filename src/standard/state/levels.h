// levels.h - the levels of topics and filters. The text of a level is stored once, however many topics have it, and two
// levels are the same if they are the same object.
#ifndef TARN_STANDARD_LEVELS_H
#define TARN_STANDARD_LEVELS_H

#include "hash_table.h"
#include "text_hash.h"

#include <string_view>

namespace tarn::standard {

// Paths have no more levels than this, which bounds how deep a walk through a tree goes and what one path can cost. Of
// a longer topic the last one holds all that is left, with its slashes.
constexpr size_t kMaxLevels = 128;

// Gives the levels of a text one after the other: "a//b/" has four, two of them empty.
class LevelReader {
public:
    explicit LevelReader(std::string_view text) noexcept : left_(text) {}

    bool next(std::string_view &level) noexcept;

private:
    std::string_view left_;
    size_t           count_  = 0;
    bool             at_end_ = false;
};

struct Level : InTable<Level> {
    std::string_view text;
    size_t           users = 0;

    bool holds_many() const noexcept { return text.find('/') != text.npos; } // all that was left of a long topic
};

class LevelNames {
public:
    LevelNames() noexcept;
    LevelNames(const LevelNames &)            = delete;
    LevelNames &operator=(const LevelNames &) = delete;

    const Level *plus() const noexcept { return &plus_; } // "+"
    const Level *rest() const noexcept { return &rest_; } // "#"
    size_t       bytes() const noexcept { return bytes_; }

    const Level *find(std::string_view text) const noexcept; // null if nothing holds it
    Level       *hold(std::string_view text) noexcept;       // one user more; null without memory
    void         hold(Level &level) noexcept { ++level.users; }
    void         let_go(Level *level) noexcept; // one user less

private:
    Level *find(std::string_view text, uint64_t hash) const noexcept;

    TextHash         hash_;
    HashTable<Level> table_;
    Level            plus_;
    Level            rest_;
    size_t           bytes_ = 0;
};

} // namespace tarn::standard

#endif
