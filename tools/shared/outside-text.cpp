#include "tools/shared/outside-text.h"

#include <glib.h>

#include <algorithm>

namespace quillon {

namespace {

constexpr const char* kEllipsis = "...";

bool isContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80;
}

/// Bytes of the character that begins with this one; 0 when none does.
std::size_t lengthOf(unsigned char first)
{
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first < 0xE0) {
        return 2;
    }
    if (first >= 0xE0 && first < 0xF0) {
        return 3;
    }
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

bool isHarmless(gunichar character)
{
    const bool breaksLine = character == 0x2028 || character == 0x2029;
    const bool turns = character == 0x061C || character == 0x200E || character == 0x200F ||
                       (character >= 0x202A && character <= 0x202E) ||
                       (character >= 0x2066 && character <= 0x2069);
    return g_unichar_iscntrl(character) == FALSE && !breaksLine && !turns;
}

}  // namespace

std::string printable(const std::string& text)
{
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = lengthOf(static_cast<unsigned char>(text[at]));
        const bool isWhole =
            length > 0 && at + length <= text.size() &&
            std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at + 1),
                        text.begin() + static_cast<std::ptrdiff_t>(at + length), isContinuation);
        const std::size_t taken = isWhole ? length : 1;
        if (isWhole && g_utf8_validate(&text[at], static_cast<gssize>(length), nullptr) != FALSE &&
            isHarmless(g_utf8_get_char(&text[at]))) {
            shown.append(text, at, length);
        } else {
            shown += '?';
        }
        at += taken;
    }
    return shown;
}

std::size_t countCharacters(const std::string& text)
{
    return text.size() -
           static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isContinuation));
}

std::string cut(const std::string& text, std::size_t characters)
{
    std::size_t count = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        count += isContinuation(text[at]) ? 0 : 1;
        if (count > characters) {
            return text.substr(0, at) + kEllipsis;
        }
    }
    return text;
}

}  // namespace quillon
