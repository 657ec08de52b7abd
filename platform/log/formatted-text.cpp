#include "platform/log/formatted-text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace quillon {

void FormattedText::vformat(const char* format, va_list arguments)
{
    const int errnoForPercentM = errno;
    va_list again;
    va_copy(again, arguments);
    // The analyzer takes the callers' lists for ones that were never started.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int wanted = std::vsnprintf(shortText_, sizeof shortText_, format, arguments);
    text_ = shortText_;
    length_ = std::strlen(shortText_);
    if (wanted >= static_cast<int>(sizeof shortText_)) {
        const auto size = static_cast<std::size_t>(wanted) + 1;
        longText_.reset(static_cast<char*>(std::malloc(size)));
        errno = errnoForPercentM;
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        if (longText_ && std::vsnprintf(longText_.get(), size, format, again) >= 0) {
            text_ = longText_.get();
            length_ = std::strlen(text_);
        }
    }
    va_end(again);
}

void FormattedText::format(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vformat(format, arguments);
    va_end(arguments);
}

void FormattedText::dropTrailingNewlines()
{
    while (length_ > 0 && text_[length_ - 1] == '\n') {
        text_[--length_] = '\0';
    }
}

void FormattedText::makeOneLine()
{
    if (length_ == 0) {
        return;
    }
    const auto isControl = [](unsigned char byte) {
        return (byte < ' ' && byte != '\t') || byte == 0x7f;
    };
    char* last = text_ + length_ - 1;
    std::replace_if(text_, last, isControl, ' ');
    *last = '\n';
}

}  // namespace quillon
