/// Texts that come from modules, images and other processes, made fit to be shown.
#pragma once

#include <cstddef>
#include <string>

namespace quillon {

/// Replaces by "?" what could break the line, steer the terminal or turn the order of its letters:
/// control characters, those that mark the writing direction, and what is not UTF-8.
std::string printable(const std::string& text);

/// How many characters there are in a printable text.
std::size_t countCharacters(const std::string& text);

/// @return the text, or its beginning and "..." where it has more characters than that
std::string cut(const std::string& text, std::size_t characters);

}  // namespace quillon
