#ifndef QUILLON_SUPPORT_TEXT_H
#define QUILLON_SUPPORT_TEXT_H

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
/// process. Nobody writes to it.
inline char* emptyText()
{
    static char text[] = "";
    return text;
}

}  // namespace quillon

#endif
