// The template of a process module: a piece of work that the service runs by its library name,
// without an image. What makes it one is the "EXT-" in the library's name, EXT-selftest.so.
//
// Its work here is a self test of the examples' storage. The optional entries are left out: they
// are for modules that install images.

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "fw-update-plugin.h"

namespace {

constexpr char kDirectory[] = "/var/lib/quillon/examples/EXT-selftest";
constexpr char kReport[] = "/var/lib/quillon/examples/EXT-selftest/report.txt";
constexpr char kScratch[] = "/var/lib/quillon/examples/EXT-selftest/scratch";

void makeDirectories()
{
    for (const char* directory : {"/var/lib/quillon", "/var/lib/quillon/examples", kDirectory}) {
        // A directory that cannot be made shows when the report is opened.
        static_cast<void>(mkdir(directory, 0755));
    }
}

bool storageKeepsWhatIsWritten()
{
    const std::string pattern(4096, '\x5A');
    std::ofstream(kScratch, std::ios::binary) << pattern;
    std::string found;
    std::getline(std::ifstream(kScratch, std::ios::binary), found);
    static_cast<void>(std::remove(kScratch));
    return found == pattern;
}

int runSelfTest()
{
    makeDirectories();
    std::ofstream report(kReport);
    const bool good = storageKeepsWhatIsWritten();
    report << "storage: " << (good ? "passed" : "failed") << '\n';
    return report.flush() && good ? 0 : -1;
}

}  // namespace

int setContext(const char* /*libraryName*/, CallerTypes /*caller*/, char* /*argument*/)
{
    return 0;
}

// Never asked of a process module, but required of every library.
int getEMPID(char* buffer)
{
    buffer[0] = '\0';
    return 0;
}

int getActiveVersion(char* buffer)
{
    constexpr char kVersion[] = "1.0";
    std::memcpy(buffer, kVersion, sizeof(kVersion));
    return 0;
}

int checkVersion(const char* /*version*/, int* need)
{
    *need = 0;
    return 0;
}

// For a process module the path is the library name and the value is 0.
int doUpdate(const char* /*path*/, unsigned long /*value*/)
{
    try {
        return runSelfTest();
    } catch (...) {
        return -1;  // nothing may be thrown into the service
    }
}
