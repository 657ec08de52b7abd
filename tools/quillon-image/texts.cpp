#include "tools/quillon-image/texts.h"

#include <algorithm>

#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

bool isPrintable(unsigned char character)
{
    return character >= 0x20 && character <= 0x7E;
}

bool isLetterOrDigit(unsigned char character)
{
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

}  // namespace

bool hasLettersAndDigitsOnly(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), isLetterOrDigit);
}

void requireVersion(const std::string& version)
{
    if (version.empty() || version.size() > kLongestVersion ||
        !std::all_of(version.begin(), version.end(), isPrintable)) {
        throw ImageError(ImageFault::kUsage, "a version has 1 to 63 printable ASCII characters");
    }
}

}  // namespace quillon
