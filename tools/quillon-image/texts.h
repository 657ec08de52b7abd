#ifndef QUILLON_TOOLS_QUILLON_IMAGE_TEXTS_H
#define QUILLON_TOOLS_QUILLON_IMAGE_TEXTS_H

#include <string>

namespace quillon {

constexpr std::size_t kLongestVersion = 63;

/// @return whether a text has ASCII letters and digits only, as every name of a module has. True
///         for the empty text.
bool hasLettersAndDigitsOnly(const std::string& text);

/// @throws ImageError with ImageFault::kUsage for a text that is not 1 to 63 printable ASCII
///         characters.
void requireVersion(const std::string& version);

}  // namespace quillon

#endif
