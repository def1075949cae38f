// text_file.h - the files people write for tarn-broker: one thing a line, comments begin with '#', blank lines do not
// count. Mistakes are told as "FILE:LINE: what is wrong".
#ifndef TARN_BROKER_ACCESS_TEXT_FILE_H
#define TARN_BROKER_ACCESS_TEXT_FILE_H

#include <functional>
#include <string>
#include <string_view>

namespace tarn::broker {

// What went wrong, empty when nothing did.
using Mistake = std::string;

Mistake read_file(const std::string &path, std::string &text);

// The file that replace_file() replaces: a link stays one, and what it points to is replaced.
std::string link_target(const std::string &path);

// Replaces the file in one step, by a new one of mode 0600 that keeps the owner of the old one.
Mistake replace_file(const std::string &path, std::string_view text);

// Hands each line that says something to `take`, without the white space around it. The first mistake ends it.
Mistake for_each_line(const std::string &path, std::string_view text,
                      const std::function<Mistake(std::string_view line)> &take);

std::string_view trimmed(std::string_view text);

} // namespace tarn::broker

#endif
