#pragma once

#include <cctype>
#include <string>

namespace quillon {

/// A copy of the text with each character upper-cased by itself.
inline std::string toUpper(std::string text)
{
    for (char& character : text) {
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    return text;
}

/// The empty text, for interfaces that want a `char*` and may keep it: it lives as long as the
/// process. Nobody should write to it; where somebody has, it is empty again for the next one.
inline char* emptyText()
{
    static char text[2] = "";
    if (__atomic_load_n(&text[0], __ATOMIC_RELAXED) != '\0') {
        __atomic_store_n(&text[0], '\0', __ATOMIC_RELAXED);
    }
    return text;
}

}  // namespace quillon
