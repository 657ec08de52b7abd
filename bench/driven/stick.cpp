#include "driven/stick.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "process/finished-process.h"
#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr const char* kMedia = "/opt/media/";
constexpr const char* kVerifierPath = "/usr/lib/libkUEPUser.so";
constexpr const char* kTrustedKeys = "/etc/quillon/trusted-keys/";
constexpr std::uint64_t kSeed = 20090514;

}  // namespace

Workshop::Workshop(std::string buildFolder) : buildFolder_(std::move(buildFolder))
{
    if (getenv("QUILLON_DEVICE") == nullptr) {
        throw std::runtime_error("this works in a virtual device only: quillon-device run");
    }
    folder_ = buildFolder_ + "/bench/data-XXXXXX";
    if (mkdtemp(folder_.data()) == nullptr) {
        throw std::runtime_error(folder_ + " cannot be made");
    }
    folder_ += "/";
    writeFile(folder_ + "image-key.bin", kImageKeyItem);
    runToEnd({buildFolder_ + "/bin/quillon-image", "keygen", folder_ + "keys"});
    fs::create_directories(kTrustedKeys);
    fs::copy_file(folder_ + "keys/signing-key.pub.pem", std::string(kTrustedKeys) + "bench.pem",
                  fs::copy_options::overwrite_existing);
}

Workshop::~Workshop()
{
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

std::string Workshop::stick(int number)
{
    const std::string name = "USBDriveA" + std::to_string(number);
    fs::remove_all(folder_ + name);
    fs::create_directories(folder_ + name);
    fs::remove(kMedia + name);
    fs::create_symlink(folder_ + name, kMedia + name);
    return kMedia + name + "/";
}

std::string Workshop::payload(std::uint64_t size)
{
    std::string path = folder_ + "payload-" + std::to_string(size);
    if (fs::exists(path)) {
        return path;
    }
    std::mt19937_64 numbers(kSeed);
    std::ofstream file(path, std::ios::binary);
    std::vector<std::uint64_t> block(8192);
    for (std::uint64_t left = size; left > 0 && file;) {
        std::generate(block.begin(), block.end(), std::ref(numbers));
        const std::uint64_t count = std::min<std::uint64_t>(left, block.size() * sizeof block[0]);
        file.write(reinterpret_cast<const char*>(block.data()),
                   static_cast<std::streamsize>(count));
        left -= count;
    }
    file.close();
    if (!file) {
        throw std::runtime_error(path + " cannot be written");
    }
    return path;
}

void Workshop::putImage(const std::string& stick, const std::string& module, std::uint64_t size)
{
    runToEnd({buildFolder_ + "/bin/quillon-image", "build", "--version", "2.0", "--payload",
              payload(size), "--key", folder_ + "image-key.bin", "--sign",
              folder_ + "keys/signing-key.pem", "--module", module, "--stick", stick});
    runToEnd({"sync", stick + module + ".bin"});  // nothing is left for the disk to do later
}

void Workshop::install(Verifier verifier) const
{
    fs::remove(kVerifierPath);
    if (verifier == Verifier::kTrivial) {
        fs::copy_file(buildFolder_ + "/bench/trivial-verifier.so", kVerifierPath);
    } else if (verifier == Verifier::kOurs) {
        fs::copy_file(buildFolder_ + "/lib/libkUEPUser.so", kVerifierPath);
    } else if (verifier == Verifier::kByPath) {
        std::string library = readFile(buildFolder_ + "/lib/libkUEPUser.so");
        const std::string entry = "verifyDigest";
        for (std::size_t at = 0; (at = library.find(entry, at)) != std::string::npos; ++at) {
            library.replace(at, entry.size(), "notThatEntry");  // found under its name no more
        }
        writeFile(kVerifierPath, library);
    }
}

}  // namespace quillon::bench
