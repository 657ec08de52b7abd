#pragma once

#include <algorithm>
#include <string_view>

namespace quillon {

/// Not isalnum(), which asks the locale. Thread: any. Never throws.
inline bool isLetterOrDigit(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

/// Whether a text is ASCII letters and digits alone, at least one. Thread: any. Never throws.
inline bool isAlphanumeric(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isLetterOrDigit);
}

}  // namespace quillon
