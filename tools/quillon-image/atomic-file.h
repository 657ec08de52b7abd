#pragma once

#include <cstddef>
#include <string>

#include "base/fd.h"

namespace quillon {

/// Who may read a file that is written.
enum class Audience {
    kOwnerOnly,  ///< mode 0600
    kEveryone    ///< mode 0644
};

/// A file that appears under its name whole or not at all.
///
/// The bytes go to a temporary file in the same directory; commit() brings them to the disk and
/// gives them the name. Without commit() nothing remains. Failures are ImageErrors with
/// ImageFault::kFile that name the file.
class AtomicFile
{
public:
    AtomicFile(const std::string& path, Audience audience);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    void write(const unsigned char* data, std::size_t length);
    void commit();

    /// @return where the bytes are until commit(), for a program that writes them in our place.
    const std::string& temporaryPath() const { return temporary_; }

private:
    std::string path_;
    std::string temporary_;
    UniqueFd descriptor_;
};

/// Writes a whole file through AtomicFile.
void writeFile(const std::string& path, const std::string& content, Audience audience);

}  // namespace quillon
