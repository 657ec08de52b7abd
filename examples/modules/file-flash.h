#ifndef QUILLON_EXAMPLES_MODULES_FILE_FLASH_H
#define QUILLON_EXAMPLES_MODULES_FILE_FLASH_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

namespace quillon {

/// A peripheral component that exists in files only. It stands where a real module talks to its
/// hardware, and takes as long.
///
/// Its state lies in "/var/lib/quillon/examples/NAME/": "version" and "firmware.bin". Its behaviour
/// is set in "/etc/quillon/examples/NAME.conf", read anew whenever it matters, lines of key=value:
///
///     speed          bytes flashed in a second; 0: as fast as the disk takes them; default 1048576
///     expected_time  answer of expectedTime in seconds; default 5
///
/// Results are 0 on success; on failure -1 with errno telling why. Nothing is thrown, since a
/// plug-in must not throw into the service. Thread: any, also while flash runs.
class FileFlash
{
public:
    /// @param name  the component's name; a constant that outlives the object
    explicit FileFlash(const char* name) : name_(name) {}

    /// Writes the installed version, "0" before the first update.
    /// @param buffer  FW_PLUGIN_TEXT_SIZE bytes
    int activeVersion(char* buffer) noexcept;

    /// Compares an offered version with the installed one and keeps it for the next flash.
    ///
    /// Versions are numbers between dots; a missing number counts as 0 ("2" is "2.0").
    /// @param need  receives 1 when the offered version is newer, else 0
    /// @return -1 (EINVAL) when the offered text is no such version, or longer than activeVersion
    ///         can tell.
    int offer(const char* version, int* need) noexcept;

    /// Replaces the firmware, and then the version by the one last offered.
    ///
    /// Whenever the power fails, the old pair remains or the next check asks for the update again.
    /// @return -1: ENODATA without an offered version, EBUSY while another flash runs, EINVAL for a
    ///         negative length, else what the file system says.
    int flash(const unsigned char* data, int length) noexcept;

    /// As flash, with the content of a file, which is read in pieces.
    ///
    /// The checksum is taken of the very bytes that are written; the old firmware stays when it is
    /// another than the expected one.
    /// @param crc  the expected CRC-32 (imageChecksum in file-flash.cpp)
    /// @return -1 also: EBADMSG for another checksum, EINVAL for a path that is no regular file.
    int flashFile(const char* path, unsigned long crc) noexcept;

    /// @param seconds  receives the estimate
    int expectedTime(int* seconds) noexcept;

    /// @param percent  receives how much of the running or latest flash is done, 0 to 100
    int progress(unsigned int* percent) noexcept;

private:
    int install(std::size_t length, const std::function<const char*(std::size_t)>& nextPiece,
                const std::function<void()>& requireWhole);

    const char* name_;
    std::mutex flashing_;  // held while flash runs
    std::mutex mutex_;     // guards offered_; never held for long
    std::string offered_;
    std::atomic<unsigned int> percent_{0};
};

}  // namespace quillon

#endif
