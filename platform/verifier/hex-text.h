#pragma once

#include <cstddef>
#include <string>

namespace quillon {

/// @return two lowercase hexadecimal digits for each byte.
inline std::string hexText(const unsigned char* bytes, std::size_t count)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4U];
        text += kDigits[bytes[i] & 0xFU];
    }
    return text;
}

}  // namespace quillon
