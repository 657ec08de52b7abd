#include "file-flash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

#include "fw-update-plugin.h"

namespace quillon {
namespace {

constexpr char kStateDirectory[] = "/var/lib/quillon/examples";
constexpr char kSettingsDirectory[] = "/etc/quillon/examples";

constexpr long kDefaultSpeed = 1048576;
constexpr long kDefaultExpectedTime = 5;
constexpr long kChunksPerSecond = 20;
constexpr std::size_t kLargestChunk = 65536;

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(int error)
{
    throw std::system_error(error, std::generic_category());
}

void require(bool condition)
{
    if (!condition) {
        fail(errno);
    }
}

/// Runs work and turns what it throws into the result of an entry.
template <typename Work>
int guarded(Work work) noexcept
{
    try {
        return work();
    } catch (const std::system_error& error) {
        errno = error.code().value();
    } catch (...) {
        errno = ENOMEM;
    }
    return -1;
}

std::string pathOf(const char* name, const char* file)
{
    return std::string(kStateDirectory) + "/" + name + "/" + file;
}

long readSetting(const char* name, const std::string& key, long standard)
{
    std::ifstream settings(std::string(kSettingsDirectory) + "/" + name + ".conf");
    for (std::string line; std::getline(settings, line);) {
        if (line.compare(0, key.size() + 1, key + "=") == 0) {
            const long value = std::strtol(line.c_str() + key.size() + 1, nullptr, 10);
            return std::clamp(value, 0L, static_cast<long>(INT32_MAX));
        }
    }
    return standard;
}

std::string readVersion(const char* name)
{
    std::ifstream file(pathOf(name, "version"));
    std::string version;
    std::getline(file, version);
    return version.empty() ? "0" : version;
}

/// @throws std::system_error (EINVAL) when the text is not numbers between dots.
std::vector<unsigned long> parseVersion(const std::string& text)
{
    std::vector<unsigned long> numbers(1, 0);
    bool digitSeen = false;
    for (const char character : text + ".") {
        if (character >= '0' && character <= '9' && numbers.back() < 100000000) {
            numbers.back() = numbers.back() * 10 + static_cast<unsigned long>(character - '0');
            digitSeen = true;
        } else if (character == '.' && digitSeen) {
            numbers.push_back(0);
            digitSeen = false;
        } else {
            fail(EINVAL);
        }
    }
    while (!numbers.empty() && numbers.back() == 0) {
        numbers.pop_back();  // so that "2", "2.0" and "2.0.0" are the same
    }
    return numbers;
}

void makeDirectories(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string directory = path.substr(0, slash);
        require(mkdir(directory.c_str(), 0755) == 0 || errno == EEXIST);
    }
}

/// The new content of a file, which takes the old one's place only when it is on the disk.
class NewFile
{
public:
    explicit NewFile(const std::string& path) : path_(path), part_(path + ".part")
    {
        makeDirectories(path);
        descriptor_ = open(part_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        require(descriptor_ >= 0);
    }

    ~NewFile()
    {
        close(descriptor_);
        if (!committed_) {
            unlink(part_.c_str());
        }
    }

    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void write(const char* data, std::size_t length)
    {
        while (length > 0) {
            const ssize_t count = ::write(descriptor_, data, length);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            require(count >= 0);
            data += count;
            length -= static_cast<std::size_t>(count);
        }
    }

    void commit()
    {
        require(fsync(descriptor_) == 0);
        require(std::rename(part_.c_str(), path_.c_str()) == 0);
        committed_ = true;
    }

private:
    std::string path_;
    std::string part_;
    int descriptor_ = -1;
    bool committed_ = false;
};

/// Continues the CRC-32 of images: polynomial 0x01B23CA3, most significant bit first, initial value
/// 0, nothing reflected, no final XOR. It is not the common CRC-32.
std::uint32_t imageChecksum(std::uint32_t crc, const char* data, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        crc ^= static_cast<std::uint32_t>(static_cast<unsigned char>(data[i])) << 24U;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc << 1U) ^ ((crc & 0x80000000U) != 0 ? 0x01B23CA3U : 0U);
        }
    }
    return crc;
}

/// An image file, read from its start to its end.
class ImageFile
{
public:
    explicit ImageFile(const char* path) : descriptor_(open(path, O_RDONLY | O_CLOEXEC))
    {
        require(descriptor_ >= 0);
        struct stat status = {};
        const bool regular = fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
        if (!regular) {
            close(descriptor_);
            fail(EINVAL);
        }
        size_ = static_cast<std::size_t>(status.st_size);
    }

    ~ImageFile() { close(descriptor_); }
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;

    std::size_t size() const { return size_; }

    /// @return the checksum of all that was read.
    std::uint32_t checksum() const { return checksum_; }

    /// @return the next bytes, valid until the next call.
    const char* read(std::size_t length)
    {
        piece_.resize(length);
        for (std::size_t done = 0; done < length;) {
            const ssize_t count = ::read(descriptor_, piece_.data() + done, length - done);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            require(count >= 0);
            if (count == 0) {
                fail(EIO);  // became shorter
            }
            done += static_cast<std::size_t>(count);
        }
        checksum_ = imageChecksum(checksum_, piece_.data(), length);
        return piece_.data();
    }

private:
    int descriptor_;
    std::size_t size_ = 0;
    std::vector<char> piece_;
    std::uint32_t checksum_ = 0;
};

void writeSlowly(NewFile& file, std::size_t length,
                 const std::function<const char*(std::size_t)>& nextPiece, long speed,
                 std::atomic<unsigned int>& percent)
{
    const std::size_t chunk =
        speed == 0 ? kLargestChunk
                   : std::clamp<std::size_t>(static_cast<std::size_t>(speed / kChunksPerSecond), 1,
                                             kLargestChunk);
    const Clock::time_point start = Clock::now();
    for (std::size_t done = 0; done < length;) {
        const std::size_t step = std::min(chunk, length - done);
        file.write(nextPiece(step), step);
        done += step;
        percent = static_cast<unsigned int>(std::uint64_t{done} * 100 / length);
        if (speed > 0) {
            const double seconds = static_cast<double>(done) / static_cast<double>(speed);
            std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(
                                                      std::chrono::duration<double>(seconds)));
        }
    }
}

}  // namespace

int FileFlash::activeVersion(char* buffer) noexcept
{
    return guarded([&] {
        static_cast<void>(
            std::snprintf(buffer, FW_PLUGIN_TEXT_SIZE, "%s", readVersion(name_).c_str()));
        return 0;
    });
}

int FileFlash::offer(const char* version, int* need) noexcept
{
    return guarded([&] {
        if (std::strlen(version) >= FW_PLUGIN_TEXT_SIZE) {
            fail(EINVAL);
        }
        const bool newer = parseVersion(version) > parseVersion(readVersion(name_));
        const std::lock_guard<std::mutex> lock(mutex_);
        offered_ = version;
        *need = newer ? 1 : 0;
        return 0;
    });
}

int FileFlash::flash(const unsigned char* data, int length) noexcept
{
    return guarded([&] {
        if (length < 0) {
            fail(EINVAL);
        }
        const char* rest = reinterpret_cast<const char*>(data);
        const auto nextPiece = [&rest](std::size_t step) {
            const char* const piece = rest;
            rest += step;
            return piece;
        };
        return install(static_cast<std::size_t>(length), nextPiece, [] {});
    });
}

int FileFlash::flashFile(const char* path, unsigned long crc) noexcept
{
    return guarded([&] {
        ImageFile image(path);
        const auto nextPiece = [&image](std::size_t step) { return image.read(step); };
        return install(image.size(), nextPiece, [&image, crc] {
            if (image.checksum() != crc) {
                fail(EBADMSG);
            }
        });
    });
}

int FileFlash::install(std::size_t length, const std::function<const char*(std::size_t)>& nextPiece,
                       const std::function<void()>& requireWhole)
{
    const std::unique_lock<std::mutex> flashing(flashing_, std::try_to_lock);
    if (!flashing) {
        fail(EBUSY);
    }
    std::string version;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        version = offered_;
    }
    if (version.empty()) {
        fail(ENODATA);
    }

    percent_ = 0;
    NewFile firmware(pathOf(name_, "firmware.bin"));
    writeSlowly(firmware, length, nextPiece, readSetting(name_, "speed", kDefaultSpeed), percent_);
    requireWhole();
    firmware.commit();

    // Last, so that after a power cut in between the update is asked for again.
    NewFile record(pathOf(name_, "version"));
    record.write((version + "\n").c_str(), version.size() + 1);
    record.commit();
    percent_ = 100;
    return 0;
}

int FileFlash::expectedTime(int* seconds) noexcept
{
    return guarded([&] {
        *seconds = static_cast<int>(readSetting(name_, "expected_time", kDefaultExpectedTime));
        return 0;
    });
}

int FileFlash::progress(unsigned int* percent) noexcept
{
    *percent = percent_;
    return 0;
}

}  // namespace quillon
