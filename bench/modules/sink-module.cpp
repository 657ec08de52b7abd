// A module that takes every image, as costly as the environment says:
//
//   QUILLON_BENCH_TARGET   writes the payload into this file; without it, drops the payload
//   QUILLON_BENCH_FLASH    bytes a second that its flash takes; without it, any amount at once
//   QUILLON_BENCH_TAKES    microseconds that each update takes in addition
//
// A program that exports quillonBenchOwnTime is told the time that each entry took.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fw-update-plugin.h"

extern "C" __attribute__((weak)) void quillonBenchOwnTime(std::int64_t nanoseconds);

namespace {

using std::chrono::steady_clock;

char name[FW_PLUGIN_TEXT_SIZE - sizeof("emp")];

/// Tells the program about the time that an entry took, at its end.
class OwnTime
{
public:
    OwnTime() = default;
    ~OwnTime()
    {
        if (&quillonBenchOwnTime != nullptr) {
            const std::chrono::nanoseconds taken = steady_clock::now() - started_;
            quillonBenchOwnTime(taken.count());
        }
    }
    OwnTime(const OwnTime&) = delete;
    OwnTime& operator=(const OwnTime&) = delete;

private:
    steady_clock::time_point started_ = steady_clock::now();
};

double numberIn(const char* variable)
{
    const char* text = getenv(variable);
    return text == nullptr ? 0 : atof(text);
}

void sleepFor(double seconds)
{
    timespec rest = {};
    rest.tv_sec = static_cast<time_t>(seconds);
    rest.tv_nsec = static_cast<long>((seconds - static_cast<double>(rest.tv_sec)) * 1e9);
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

bool writeTo(const char* path, const unsigned char* data, int length)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file == -1) {
        return false;
    }
    int written = 0;
    while (written < length) {
        const ssize_t count =
            write(file, data + written, static_cast<std::size_t>(length - written));
        if (count <= 0) {
            break;
        }
        written += static_cast<int>(count);
    }
    return close(file) == 0 && written == length;
}

void takeAsLongAsTold(int length)
{
    double seconds = numberIn("QUILLON_BENCH_TAKES") / 1e6;
    const double flash = numberIn("QUILLON_BENCH_FLASH");
    if (flash > 0) {
        seconds += length / flash;
    }
    if (seconds > 0) {
        sleepFor(seconds);
    }
}

}  // namespace

int setContext(const char* libraryName, CallerTypes /*caller*/, char* /*argument*/)
{
    const OwnTime measured;
    static_cast<void>(snprintf(name, sizeof name, "%s", libraryName));
    return 0;
}

int getEMPID(char* buffer)
{
    const OwnTime measured;
    static_cast<void>(snprintf(buffer, FW_PLUGIN_TEXT_SIZE, "%semp", name));
    return 0;
}

int getActiveVersion(char* buffer)
{
    const OwnTime measured;
    static_cast<void>(snprintf(buffer, FW_PLUGIN_TEXT_SIZE, "1.0"));
    return 0;
}

int checkVersion(const char* /*version*/, int* need)
{
    const OwnTime measured;
    *need = 1;
    return 0;
}

int doUpdate(const char* /*path*/, unsigned long /*value*/)
{
    const OwnTime measured;
    takeAsLongAsTold(0);
    return 0;
}

int allUpdateDone()
{
    return 0;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    const OwnTime measured;
    const char* target = getenv("QUILLON_BENCH_TARGET");
    if (target != nullptr && !writeTo(target, data, length)) {
        return -1;
    }
    takeAsLongAsTold(length);
    return 0;
}

int getExpectedTime(int* seconds)
{
    *seconds = 1;
    return 0;
}

int getUpdateProgress(unsigned int* progress)
{
    *progress = 0;
    return 0;
}
