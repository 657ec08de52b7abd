#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "base/fd.h"

namespace quillon {

/// A printf-formatted text of any length that lives as long as the object.
///
/// Short texts stay in the object, long ones go to the heap; where memory is short the text is cut.
/// Never throws, so that it can be used below a C entry point. Thread: one object, one thread.
class FormattedText
{
public:
    FormattedText() { shortText_[0] = '\0'; }
    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;

    /// Formats, replacing what was there. "%m" stands for errno as it is at the call.
    /// @param arguments  may not be used afterwards, as with vsnprintf
    void vformat(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
    void format(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Cuts all newlines at the end.
    void dropTrailingNewlines();

    /// Puts a space for every control character but the tab, and a newline in the place of the last
    /// character: a text that was formatted with one at its end has it also when it was cut.
    void makeOneLine();

    /// NUL-terminated; valid until the next change.
    const char* text() const { return text_; }
    std::size_t length() const { return length_; }

private:
    char shortText_[512];
    std::unique_ptr<char, ReleaseWith<&std::free>> longText_;
    char* text_ = shortText_;
    std::size_t length_ = 0;
};

}  // namespace quillon
