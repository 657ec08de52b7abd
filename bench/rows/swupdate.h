#ifndef QUILLON_BENCH_ROWS_SWUPDATE_H
#define QUILLON_BENCH_ROWS_SWUPDATE_H

#include <string>

#include "driven/service.h"

namespace quillon::bench {

/// A different program that does the same kind of work, as Debian packages it: it verifies a
/// signature, deciphers AES-256-CBC and writes a raw image into a file. Its image is a cpio archive
/// of a description, the description's CMS signature and the enciphered payload, whose SHA-256 the
/// description tells. Everything throws std::runtime_error, or what it derives from.
class Swupdate
{
public:
    /// Whether swupdate and what makes its images are installed.
    static bool isInstalled();

    /// When the target gets its first byte.
    enum class Writes {
        kOnceVerified,  ///< after all of the image has been verified, as with our service
        kWhileReading   ///< at once: a wrong image shows when it has been written
    };

    /// Makes an image in a folder of its own.
    /// @param payload  a file
    /// @param folder   made when missing
    Swupdate(const std::string& payload, std::string folder, Writes writes);

    /// Empties the target.
    void empty() const;

    /// Installs the image, and looks whether the target is the payload. The wall time is that from
    /// the program's start to its word that the update was successful: it looks once a second
    /// whether it may end.
    Taken install() const;

private:
    std::string payload_;
    std::string folder_;
};

}  // namespace quillon::bench

#endif
