#include "rows/swupdate.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

#include "process/finished-process.h"
#include "process/text-file.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

// In memory, as the target of our service: both only write it.
constexpr const char* kTarget = "/opt/media/swupdate-target";

constexpr const char* kKey = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
constexpr const char* kIv = "0102030405060708090a0b0c0d0e0f10";

std::string descriptionOf(const std::string& target, const std::string& sha256, bool isDirect)
{
    return "software =\n{\n"
           "    version = \"1.0\";\n"
           "    hardware-compatibility: [ \"1.0\" ];\n"
           "    images: ({\n"
           "        filename = \"image.enc\";\n"
           "        type = \"raw\";\n"
           "        device = \"" +
           target +
           "\";\n"
           "        encrypted = true;\n"
           "        ivt = \"" +
           kIv +
           "\";\n"
           "        sha256 = \"" +
           sha256 +
           "\";\n"
           "        installed-directly = " +
           (isDirect ? "true" : "false") +
           ";\n"
           "    });\n"
           "}\n";
}

bool runs(const std::string& command)
{
    try {
        runToEnd({"sh", "-c", "command -v " + command});
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

}  // namespace

bool Swupdate::isInstalled()
{
    return runs("swupdate") && runs("openssl") && runs("cpio");
}

Swupdate::Swupdate(const std::string& payload, std::string folder, Writes writes)
    : payload_(payload), folder_(std::move(folder))
{
    fs::create_directories(folder_);
    writeFile(folder_ + "/aes.key", std::string(kKey) + " " + kIv + "\n");
    runToEnd({"openssl", "req", "-x509", "-newkey", "rsa:4096", "-nodes", "-keyout", "sign.key",
              "-out", "sign.crt", "-subj", "/CN=bench", "-days", "3650", "-addext",
              "keyUsage=digitalSignature", "-addext", "extendedKeyUsage=emailProtection"},
             folder_);
    runToEnd({"openssl", "enc", "-aes-256-cbc", "-K", kKey, "-iv", kIv, "-in", payload, "-out",
              "image.enc"},
             folder_);
    const std::string sha256 = runToEnd({"sha256sum", "image.enc"}, folder_).output.substr(0, 64);
    writeFile(folder_ + "/sw-description",
              descriptionOf(kTarget, sha256, writes == Writes::kWhileReading));
    runToEnd(
        {"openssl", "cms", "-sign", "-in", "sw-description", "-out", "sw-description.sig",
         "-signer", "sign.crt", "-inkey", "sign.key", "-outform", "DER", "-nosmimecap", "-binary"},
        folder_);
    runToEnd({"sh", "-c",
              "printf '%s\\n' sw-description sw-description.sig image.enc |"
              " cpio --quiet -o -H crc > update.swu"},
             folder_);
    fs::remove(folder_ + "/image.enc");
    runToEnd({"sync", folder_ + "/update.swu"});
}

void Swupdate::empty() const
{
    writeFile(kTarget, "");  // it writes into what is there
}

Taken Swupdate::install() const
{
    // Its exit status is 1 now and then after a success: what counts is its word and the target.
    const Finished finished = runUntilItSays({"swupdate", "-k", "sign.crt", "-K", "aes.key", "-H",
                                              "bench:1.0", "-l", "1", "-i", "update.swu"},
                                             folder_, "SWUPDATE successful");
    runToEnd({"cmp", kTarget, payload_});
    return {finished.wallSeconds, finished.cpuSeconds};
}

}  // namespace quillon::bench
