// levels.cpp - see levels.h.
#include "levels.h"

#include "object.h"

namespace tarn::standard {

bool LevelReader::next(std::string_view &level) noexcept
{
    if (at_end_)
        return false;
    ++count_;
    const size_t slash = count_ < kMaxLevels ? left_.find('/') : left_.npos;
    level              = left_.substr(0, slash);
    at_end_            = slash == left_.npos;
    if (!at_end_)
        left_.remove_prefix(slash + 1);
    return true;
}

LevelNames::LevelNames() noexcept
{
    plus_.text  = "+";
    rest_.text  = "#";
    plus_.users = rest_.users = 1; // they stay
    table_.insert(plus_, hash_(plus_.text));
    table_.insert(rest_, hash_(rest_.text));
}

Level *LevelNames::find(std::string_view text, uint64_t hash) const noexcept
{
    return table_.find(hash, [&](const Level &level) { return level.text == text; });
}

const Level *LevelNames::find(std::string_view text) const noexcept
{
    return find(text, hash_(text));
}

Level *LevelNames::hold(std::string_view text) noexcept
{
    const uint64_t hash  = hash_(text);
    Level         *level = find(text, hash);
    if (!level) {
        level = make_with_text<Level>(text);
        if (!level)
            return nullptr;
        table_.insert(*level, hash);
        bytes_ += sizeof(Level) + text.size();
    }
    ++level->users;
    return level;
}

void LevelNames::let_go(Level *level) noexcept
{
    if (--level->users > 0)
        return;
    bytes_ -= sizeof(Level) + level->text.size();
    table_.remove(*level);
    destroy_object(level);
}

} // namespace tarn::standard
