#include "fw-update-symbol.h"

#include <dlfcn.h>
#include <json/json.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

#include "base/fd.h"
#include "base/regular-file.h"
#include "fw-update-mount-manager.h"
#include "platform/app-binary-manager.h"
#include "platform/verifier.h"
#include "support/checksum.h"
#include "support/first-touch.h"
#include "support/log.h"
#include "support/module-observer.h"
#include "support/paths.h"
#include "support/read-witness.h"
#include "support/text.h"
#include "support/unseen-memory.h"

using quillon::because;
using quillon::blame;
using quillon::ModuleReason;
using quillon::offer;

namespace {

constexpr std::size_t kChecksumBlock = 32768;
constexpr int kLastNumberedStick = 10;

constexpr std::size_t kIvSize = 16;
constexpr std::size_t kCipherBlock = 10240;
constexpr auto kTrailerSize = static_cast<int>(quillon::kImageTrailerSize);  // never deciphered
constexpr std::size_t kInformationLimit = 1U << 20U;  // bytes; a real one has some hundred

/// The longest text that a plug-in may write, terminated even if the plug-in forgets to.
using PluginText = std::array<char, FW_PLUGIN_TEXT_SIZE + 1>;

constexpr int kChildStatus = 127;  // of a child that could not become another program

constexpr const char* kVerifierEntry = "verifyFile";
constexpr const char* kDigestEntry = "verifyDigest";
constexpr const char* kVerifierCaller = "UserCaller";

/// The verifier's second entry; null as long as the verifier is not loaded, or has none.
std::atomic<decltype(&verifyDigest)> digestVerifier{nullptr};

/// The version text in front of an image's payload, terminated whatever the image holds.
using VersionHeader = std::array<char, FW_PLUGIN_HEADER_SIZE + 1>;

VersionHeader versionHeaderOf(const unsigned char* data, int length)
{
    VersionHeader header{};
    std::memcpy(header.data(), data,
                std::min(static_cast<std::size_t>(length), std::size_t{FW_PLUGIN_HEADER_SIZE}));
    return header;
}

/// Says why openRegularStream() has just failed: from errno, and from what it has seen.
/// @return empty when the image is missing
const char* troubleOf(const struct stat& opened)
{
    const bool isFound = opened.st_mode != 0;
    if (isFound && !S_ISREG(opened.st_mode)) {
        return "it is no regular file";
    }
    return errno == ENOENT ? "" : std::strerror(errno);
}

bool exists(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0;
}

/// Whether something is at the path that may wait for ever, or act, once it is opened.
bool isSpecialFile(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

/// What the dynamic linker has against the calling thread's last request, if anything. It is a
/// copy: the linker's own text ends with the thread's next request, and a platform's log may make
/// one.
std::optional<std::string> linkerError()
{
    const char* error = dlerror();
    return error != nullptr ? std::optional<std::string>(error) : std::nullopt;
}

/// Ends a child that was forked while it stands.
class EndOfChildren
{
public:
    EndOfChildren() = default;
    ~EndOfChildren()
    {
        if (getpid() != process_) {
            _exit(kChildStatus);
        }
    }
    EndOfChildren(const EndOfChildren&) = delete;
    EndOfChildren& operator=(const EndOfChildren&) = delete;

private:
    pid_t process_ = getpid();
};

/// Calls what a plug-in or the verifier brings along. A child that it forks and lets come out of
/// the call would go on as a second service, and ends instead.
template <typename Entry, typename... Arguments>
auto callLibrary(const Entry& entry, Arguments... arguments)
{
    const EndOfChildren children;
    return entry(arguments...);
}

/// Looks an entry up in a library and binds it; an entry that is not there leaves the slot empty.
/// @return what the dynamic linker has against it, if anything
template <typename Signature>
std::optional<std::string> bindEntry(std::function<Signature>& slot, void* library,
                                     const char* name)
{
    slot = reinterpret_cast<Signature*>(dlsym(library, name));
    return linkerError();
}

void setCipherBuffer(unsigned char* buffer)
{
    // Two threads may decipher at once; nobody reads the pointer, the latest buffer wins.
    __atomic_store_n(&cipher_buf_all, buffer, __ATOMIC_RELAXED);
}

/// The algorithm, under a witness.
/// @param witness  is shown what is read; may be null
unsigned char* aes_256_cbc_all(std::FILE* fp, const unsigned char* ckey, const unsigned char* iv,
                               int enc, int count, int& outlen, quillon::ReadWitness* witness)
{
    const quillon::UniqueMemory<unsigned char> input(
        static_cast<unsigned char*>(std::malloc(kCipherBlock)));
    if (!input) {
        return nullptr;
    }

    const quillon::UniqueCipherContext context(EVP_CIPHER_CTX_new());
    if (!context) {
        return nullptr;
    }
    if (EVP_CipherInit(context.get(), EVP_aes_256_cbc(), ckey, iv, enc) != 0) {
        static_cast<void>(EVP_CIPHER_CTX_block_size(context.get()));
    }

    auto* output =
        count < 0 ? nullptr
                  : static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(count), 1));
    setCipherBuffer(output);
    if (output == nullptr) {
        return nullptr;
    }
    const quillon::EasedFirstTouch eased(output, static_cast<std::size_t>(count));

    const std::int64_t limit = std::int64_t{count} - kTrailerSize;
    std::int64_t read = 0;
    std::int64_t written = 0;
    int chunk = 0;
    std::size_t n = 0;
    do {
        n = std::fread(input.get(), 1, kCipherBlock, fp);
        if (witness != nullptr) {
            witness->saw(input.get(), n);
        }
        read += static_cast<std::int64_t>(n);
        auto fed = static_cast<std::int64_t>(n);
        if (read > limit) {
            fed -= read - limit;
        }
        // Once the trailer has begun in an earlier read, nothing is left to feed.
        if (fed > 0) {
            chunk = 0;
            EVP_CipherUpdate(context.get(), output + written, &chunk, input.get(),
                             static_cast<int>(fed));
            written += chunk;
        }
        // A file that grows as fast as it is read would have no end.
    } while (n == kCipherBlock && (witness == nullptr || !witness->sawMore()));

    // A wrong key or a damaged image shows here and is not reported: the output is then
    // only shorter, and the plug-in's own checks refuse it. Enciphering next to nothing needs more
    // room for its last block than the output has, so that block takes a detour.
    chunk = 0;
    if (count - written >= EVP_MAX_BLOCK_LENGTH) {
        EVP_CipherFinal(context.get(), output + written, &chunk);
    } else {
        std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> last{};
        EVP_CipherFinal(context.get(), last.data(), &chunk);
        chunk = static_cast<int>(std::min<std::int64_t>(chunk, count - written));
        std::copy_n(last.data(), chunk, output + written);
    }
    outlen = static_cast<int>(written + chunk);
    return output;
}

/// Deciphers the rest of an image whose IV has been read.
/// @param count    as for aes_256_cbc_all, but any; one that does not fit into an int counts as too
///                 large for memory
/// @param witness  has seen the IV
/// @return as aes_256_cbc_all; null also when not all of the image could be read
unsigned char* decipherImage(std::FILE* file, const unsigned char* ckey, const unsigned char* iv,
                             std::int64_t count, int& outlen, quillon::ReadWitness& witness)
{
    if (count > std::numeric_limits<int>::max()) {
        return nullptr;
    }
    unsigned char* data =
        aes_256_cbc_all(file, ckey, iv, 0, static_cast<int>(count), outlen, &witness);
    if (data != nullptr && (std::ferror(file) != 0 || !witness.sawAll())) {
        setCipherBuffer(nullptr);
        std::free(data);
        return nullptr;
    }
    return data;
}

/// The image's path, under the very name of the module: a stick directory without its final "/"
/// lends the opened file a longer one, which may be that of another module.
std::string ownImagePath(const std::string& directory, const std::string& firmwareName)
{
    const bool isEnded = !directory.empty() && directory.back() == '/';
    return directory + (isEnded ? "" : "/") + firmwareName + ".bin";
}

/// Whether the verifier stands by what was really read of the image, when it can be asked.
bool isDigestSigned(quillon::ReadWitness& witness, const char* directory,
                    const std::string& firmwareName)
{
    const auto verify = digestVerifier.load();
    if (verify == nullptr) {
        return true;
    }
    quillon::Sha256 digest{};
    quillon::ImageTrailerBytes trailer{};
    return witness.testify(digest, trailer) &&
           callLibrary(verify, nullptr, digest.data(), trailer.data(), kTrailerSize,
                       ownImagePath(directory, firmwareName).c_str(), kVerifierCaller) != 0;
}

quillon::ReadWitness::Digest wantedDigest()
{
    return digestVerifier.load() != nullptr ? quillon::ReadWitness::Digest::kWanted
                                            : quillon::ReadWitness::Digest::kNotWanted;
}

}  // namespace

unsigned char* cipher_buf_all = nullptr;

UPDATE_TYPE CallerToUpdateType(CallerTypes caller, char* arg)
{
    switch (static_cast<int>(caller)) {
        case CALLER_STICK:
            return UPDATE_USB;
        case CALLER_ARGUMENT:
            return std::string(arg) == "USB" ? UPDATE_USB : UPDATE_EMP;
        case CALLER_SYSTEM:
        case CALLER_SYSTEM_2:
        case CALLER_SYSTEM_3:
            return UPDATE_EXT;
        case CALLER_SHARED:
            return UPDATE_SBOX;
        default:
            return UPDATE_EMP;
    }
}

int uep_verify(const char* path)
{
    static std::atomic<decltype(&verifyFile)> s_kuep_verifier{nullptr};

    if (s_kuep_verifier.load() == nullptr) {
        // Without a verifier every image counts as signed: such a device relies on the
        // cipher alone.
        void* handle = callLibrary(dlopen, quillon::paths::kVerifierLibrary, RTLD_LAZY);
        if (handle == nullptr) {
            FW_LOGE("[uep][%s] pHandle Error: %s\n", kVerifierCaller,
                    linkerError().value_or("").c_str());
            return 1;
        }
        dlerror();
        const auto entry = reinterpret_cast<decltype(&verifyFile)>(dlsym(handle, kVerifierEntry));
        const std::optional<std::string> error = linkerError();
        if (error || entry == nullptr) {
            FW_LOGE("[uep][%s] dlsym Error: %s\n", kVerifierCaller,
                    error.value_or("the entry is null").c_str());
            callLibrary(dlclose, handle);
            return 1;
        }
        digestVerifier.store(
            reinterpret_cast<decltype(&verifyDigest)>(dlsym(handle, kDigestEntry)));
        dlerror();  // it may lack that one
        // The library stays open, for as long as its entries may be called.
        s_kuep_verifier.store(entry);
    }

    const int result = callLibrary(s_kuep_verifier.load(), nullptr, path, kVerifierCaller);
    if (result != 0) {
        FW_LOGE("[uep][%s] the file is signed successfully : %s\n", kVerifierCaller, path);
    } else {
        FW_LOGE("[uep][%s] the file is NOT signed!! : %s\n", kVerifierCaller, path);
    }
    return result;
}

unsigned char* aes_256_cbc_all(std::FILE* fp, const unsigned char* ckey, const unsigned char* iv,
                               int enc, int count, int& outlen)
{
    return aes_256_cbc_all(fp, ckey, iv, enc, count, outlen, nullptr);
}

FWUpdateSymbol::FWUpdateSymbol(const std::string& libName)
    : libName_(std::make_shared<const std::string>(libName))
{
}

int FWUpdateSymbol::loadSymbol(const std::string& name)
{
    if (name.empty()) {
        return because(ModuleReason::kNoName);
    }
    const std::string path = quillon::paths::kModules + name + ".so";
    std::array<char, PATH_MAX> resolved{};
    if (realpath(path.c_str(), resolved.data()) == nullptr) {
        return because(ModuleReason::kNoLibrary);
    }
    if (name != *libName_) {
        libName_ = std::make_shared<const std::string>(name);
    }

    void* handle = callLibrary(dlopen, resolved.data(), RTLD_NOW);
    if (handle == nullptr) {
        const std::string error = linkerError().value_or("");
        FW_LOGE("Error: dlsym libfile: %s error: %s\n", path.c_str(), error.c_str());
        blame(ModuleReason::kNotLoadable, error.c_str());
    }
    unbind();  // nothing may point into a library of an earlier load, which is closed now
    // The plug-in may have kept the name that it was told: it outlives the library.
    library_.reset(handle, [name = libName_](void* library) {
        callLibrary(quillon::LibraryCloser(), library);
    });
    if (!library_) {
        return -1;
    }

    if (const auto error = bindEntry(setContext_, library_.get(), "setContext")) {
        FW_LOGE("Error: dlsym error: %s\n", error->c_str());
        return because(ModuleReason::kNoEntry, "setContext");
    }
    if (const auto error = bindEntry(getEMPID_, library_.get(), "getEMPID")) {
        FW_LOGE("Error: dlsym error: %s\n", error->c_str());
        return because(ModuleReason::kNoEntry, "getEMPID");
    }
    if (const auto error = bindEntry(getActiveVersion_, library_.get(), "getActiveVersion")) {
        FW_LOGE("Error: dlsym error: %s\n", error->c_str());
        return because(ModuleReason::kNoEntry, "getActiveVersion");
    }
    if (const auto error = bindEntry(checkVersion_, library_.get(), "checkVersion")) {
        FW_LOGE("Error: dlsym error: %s\n", error->c_str());
        return because(ModuleReason::kNoEntry, "checkVersion");
    }
    if (const auto error = bindEntry(doUpdate_, library_.get(), "doUpdate")) {
        FW_LOGE("Error: dlsym error: %s\n", error->c_str());
        return because(ModuleReason::kNoEntry, "doUpdate");
    }

    if (const auto error = bindEntry(allUpdateDone_, library_.get(), "allUpdateDone")) {
        FW_LOGD("Error: dlsym error: %s\n", error->c_str());
        allUpdateDone_ = nullptr;
    }
    if (const auto error = bindEntry(doUpdate_decryption_, library_.get(), "doUpdate_decryption")) {
        FW_LOGD("Error: dlsym error: %s\n", error->c_str());
        doUpdate_decryption_ = nullptr;
    }
    if (const auto error = bindEntry(getExpectedTime_, library_.get(), "getExpectedTime")) {
        FW_LOGD("Error: dlsym error: %s\n", error->c_str());
        getExpectedTime_ = nullptr;
    }
    if (const auto error = bindEntry(getUpdateProgress_, library_.get(), "getUpdateProgress")) {
        FW_LOGD("Error: dlsym error: %s\n", error->c_str());
        getUpdateProgress_ = nullptr;
    }

    setContext(CALLER_SERVICE, quillon::emptyText());

    if (quillon::toUpper(*libName_).find("EXT-") != std::string::npos) {
        isLoaded_ = false;
        symbolType_ = 1;
        FW_LOGE("Not Update Symbol [%s]", libName_->c_str());
        return 0;
    }

    std::string identifier;
    if (getEMPID(identifier) != 0) {
        return -1;
    }
    empName_ = identifier;
    firmwareName_ = identifier;
    const std::size_t emp = firmwareName_.find("emp");
    if (emp == std::string::npos) {
        FW_LOGE("Error: EMPID is Wrong (%s)", firmwareName_.c_str());
        return because(ModuleReason::kBadIdentifier, firmwareName_.c_str());
    }
    firmwareName_.erase(emp, std::strlen("emp"));
    imagePath_ = quillon::paths::kPackages + empName_ + ".img";
    isLoaded_ = true;
    symbolType_ = 0;
    return 0;
}

void FWUpdateSymbol::unbind()
{
    isLoaded_ = false;
    setContext_ = nullptr;
    getEMPID_ = nullptr;
    getActiveVersion_ = nullptr;
    checkVersion_ = nullptr;
    doUpdate_ = nullptr;
    allUpdateDone_ = nullptr;
    doUpdate_decryption_ = nullptr;
    getExpectedTime_ = nullptr;
    getUpdateProgress_ = nullptr;
}

int FWUpdateSymbol::getEMPID(std::string& out)
{
    PluginText buffer{};
    callLibrary(getEMPID_, buffer.data());
    buffer.back() = '\0';
    out = buffer.data();

    if (out.empty()) {
        FW_LOGE("Error: EMPID is empty.(%s)", out.c_str());
        return because(ModuleReason::kNoIdentifier);
    }
    const bool allowed = std::all_of(out.begin(), out.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
    if (!allowed) {
        FW_LOGE("Error: use EMPID only English and numbers. %s", out.c_str());
        return because(ModuleReason::kBadIdentifier, out.c_str());
    }
    return 0;
}

int FWUpdateSymbol::setContext(CallerTypes caller, char* arg)
{
    return callLibrary(setContext_, libName_->c_str(), caller, arg);
}

int FWUpdateSymbol::getActiveVersion(char* buffer)
{
    setContext(CALLER_SERVICE, quillon::emptyText());
    return callLibrary(getActiveVersion_, buffer);
}

int FWUpdateSymbol::checkVersion(const char* version, int* need)
{
    return callLibrary(checkVersion_, version, need);
}

int FWUpdateSymbol::doUpdate(const char* path, unsigned long value, unsigned int /*extra*/)
{
    quillon::tellFlashing(*libName_);
    return callLibrary(doUpdate_, path, value);
}

int FWUpdateSymbol::allUpdateDone()
{
    if (!allUpdateDone_) {
        return -1;
    }
    return callLibrary(allUpdateDone_);
}

int FWUpdateSymbol::doUpdate_decryption(const unsigned char* data, int length)
{
    if (!isLoaded_ || !doUpdate_decryption_) {
        return -1;
    }
    quillon::tellFlashing(*libName_);
    return callLibrary(doUpdate_decryption_, data, length);
}

int FWUpdateSymbol::getExpectedTime(int* seconds)
{
    if (!isLoaded_ || !getExpectedTime_) {
        return -1;
    }
    return callLibrary(getExpectedTime_, seconds);
}

int FWUpdateSymbol::getUpdateProgress(unsigned int* progress)
{
    if (!getUpdateProgress_) {
        return -1;
    }
    return callLibrary(getUpdateProgress_, progress);
}

bool FWUpdateSymbol::isLoaded() const
{
    return isLoaded_;
}

bool FWUpdateSymbol::getNeedUpdate() const
{
    return needUpdate_.get();
}

int FWUpdateSymbol::getExpectedUpdateTime() const
{
    return expectedTime_.get();
}

int FWUpdateSymbol::getSymbolType() const
{
    return symbolType_;
}

std::string FWUpdateSymbol::getFirmwareName() const
{
    return firmwareName_;
}

std::string FWUpdateSymbol::getEMPName() const
{
    return empName_;
}

std::string FWUpdateSymbol::getLibName() const
{
    return *libName_;
}

const FWInformation& FWUpdateSymbol::getInformation() const
{
    return information_;
}

bool FWUpdateSymbol::getUsbMountPath(std::string& out)
{
    if (exists(quillon::paths::kUsbStick)) {
        out = quillon::paths::kUsbStick;
        return true;
    }
    for (int number = 1; number <= kLastNumberedStick; ++number) {
        const std::string candidate =
            quillon::paths::kNumberedUsbStick + std::to_string(number) + "/";
        if (exists(candidate)) {
            out = candidate;
            return true;
        }
    }
    return false;
}

std::string FWUpdateSymbol::getInformationPath(UPDATE_TYPE type)
{
    if (type == UPDATE_USB) {
        std::string stick;
        if (!getUsbMountPath(stick)) {
            FW_LOGE("Error: Usb mount path Not found.");
            return "";
        }
        return stick + firmwareName_ + "/info.json";
    }
    if (type == UPDATE_EXT) {
        return quillon::paths::kSystemFirmware + firmwareName_ + "/info.json";
    }
    if (type == UPDATE_SBOX) {
        return quillon::paths::kSharedFirmware + firmwareName_ + "/info.json";
    }
    return quillon::paths::kMountedPackages + empName_ + "/info.json";
}

std::string FWUpdateSymbol::getBinaryPath(UPDATE_TYPE type)
{
    if (type == UPDATE_USB) {
        std::string stick;
        if (!getUsbMountPath(stick)) {
            FW_LOGE("Error: Usb mount path Not found.");
            return "";
        }
        return stick + firmwareName_ + "/" + firmwareName_ + ".bin";
    }
    if (type == UPDATE_EXT) {
        return quillon::paths::kSystemFirmware + firmwareName_ + "/" + firmwareName_ + ".bin";
    }
    if (type == UPDATE_SBOX) {
        return quillon::paths::kSharedFirmware + firmwareName_ + "/" + firmwareName_ + ".bin";
    }
    // The package's directory bears the package's name, the image inside it the firmware's.
    return quillon::paths::kMountedPackages + empName_ + "/" + firmwareName_ + ".bin";
}

bool FWUpdateSymbol::loadInformation(const std::string& path)
{
    Json::Value root;
    bool parsed = false;
    try {
        const std::optional<std::string> text = quillon::readRegularFile(path, kInformationLimit);
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        parsed = text && reader->parse(text->data(), text->data() + text->size(), &root, nullptr);
    } catch (const std::exception&) {
        parsed = false;  // nested too deeply, or no memory
    }
    if (!parsed || !root.isObject()) {
        FW_LOGE("Error: json loadInformation fail.(%s)\n", path.c_str());
        return false;
    }

    information_.version = root.get("version", "0000").asString();
    offer(information_.version.c_str());

    try {
        information_.crc = root.get("crc", 0U).asUInt();
    } catch (const std::exception& error) {
        FW_LOGE("Error: json crc read fail error:%s (%s)\n", error.what(), path.c_str());
        return false;
    }

    try {
        information_.expectedSeconds = root.get("expected_time", 300U).asUInt();
    } catch (const std::exception& error) {
        // Names the crc for this key too: one text tells that a number cannot be read.
        FW_LOGE("Error: json crc read fail error:%s (%s)\n", error.what(), path.c_str());
        return false;
    }
    return true;
}

unsigned long FWUpdateSymbol::getBinaryCRC32(const std::string& path)
{
    struct stat opened = {};
    const quillon::UniqueFile file = quillon::openRegularStream(path, opened);
    if (!file && S_ISDIR(opened.st_mode)) {
        return 0;  // can be opened, but not read
    }
    if (!file) {
        FW_LOGE("Error: binary file is NULL\n");
        return 0;
    }

    std::uint32_t crc = 0;
    off_t read = 0;
    std::array<unsigned char, kChecksumBlock> block;
    while (const std::size_t n = std::fread(block.data(), 1, block.size(), file.get())) {
        crc = quillon::imageChecksum(crc, block.data(), n);
        read += static_cast<off_t>(n);
        if (read > opened.st_size) {
            break;  // it grows, or is a file without an end, as the kernel has some
        }
    }
    return crc;
}

bool FWUpdateSymbol::file_exists(const std::string& path)
{
    return exists(path);
}

bool FWUpdateSymbol::getIMGExists()
{
    if (!isLoaded_) {
        return false;
    }
    return exists(imagePath_);
}

bool FWUpdateSymbol::downloadEMP()
{
    if (!isLoaded_) {
        return false;
    }
    const bool accepted = appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, empName_);
    if (!accepted) {
        FW_LOGE("Error: EMP ABM_DownloadAppBinary fail.(%s)", empName_.c_str());
    } else {
        FW_LOGI("Request (%s) emp download", empName_.c_str());
    }
    return accepted;
}

std::string FWUpdateSymbol::mountPoint() const
{
    return quillon::paths::kMountedPackages + empName_;
}

bool FWUpdateSymbol::mountEMPImage()
{
    if (!isLoaded_ || !exists(imagePath_)) {
        FW_LOGE("Error: file no exist (%s)", imagePath_.c_str());
        blame(ModuleReason::kNoPackage);
        return false;
    }
    const std::string directory = mountPoint();
    FWMountManager* manager = FWMountManager::getInstance();
    // An earlier step may have left the package mounted; that nothing is mounted is no failure.
    static_cast<void>(manager->UMount(directory));
    if (manager->Mount(imagePath_, directory) != 0) {
        FW_LOGE("Error: Firmware EMP Mount Fail.(%s)", empName_.c_str());
        blame(ModuleReason::kNotMounted);
        return false;
    }
    return true;
}

bool FWUpdateSymbol::unmountEMPImage()
{
    const bool unmounted = FWMountManager::getInstance()->UMount(mountPoint()) == 0;
    if (!unmounted) {
        FW_LOGE("Error: Firmware EMP UMount Fail.(%s)", empName_.c_str());
    } else {
        FW_LOGE("EMP UMount Success %s", imagePath_.c_str());
    }
    return unmounted;
}

// isNeedUpdate and updateFirmware check the same things in orders and words of their own, which
// decide what is logged when several are wrong at once: they stay two.

int FWUpdateSymbol::isNeedUpdate(CallerTypes caller, char* arg)
{
    FW_LOGE("%s Firmware isNeedUpdateModules Try(%s)", firmwareName_.c_str(), libName_->c_str());
    const UPDATE_TYPE type = CallerToUpdateType(caller, arg);
    // Never unmounted here: the update that follows, or the module's owner, does that.
    if (type == UPDATE_EMP && !mountEMPImage()) {
        return -1;
    }

    int need = 0;
    PluginText activeVersion{};
    setContext(caller, arg);  // the answer does not matter here: checkVersion decides

    const std::string imagePath = getBinaryPath(type);
    if (!file_exists(imagePath)) {
        FW_LOGE("Error: Firmware binary file no exist (%s)", imagePath.c_str());
        return because(ModuleReason::kNoImage);
    }
    const std::string informationPath = getInformationPath(type);
    if (!file_exists(informationPath)) {
        FW_LOGE("Error: Firmware json file no exist (%s)", informationPath.c_str());
        return because(ModuleReason::kNoInformation);
    }
    if (!loadInformation(informationPath)) {
        FW_LOGE("Error: json information load fail");
        return because(ModuleReason::kBadInformation);
    }
    if (information_.crc != getBinaryCRC32(imagePath) || isSpecialFile(imagePath)) {
        FW_LOGE("Error: %s Firmware CRC32 different", firmwareName_.c_str());
        return because(ModuleReason::kBadChecksum);
    }

    // A failed check still leaves an answer, 0 unless the plug-in wrote one.
    if (checkVersion(information_.version.c_str(), &need) != 0) {
        FW_LOGE("Error: %s Firmware CheckVersion Fail", firmwareName_.c_str());
        blame(ModuleReason::kCheckFailed);
    } else if (need < 1) {
        blame(ModuleReason::kUpToDate);
    }
    if (need < 1) {
        getActiveVersion(activeVersion.data());
        activeVersion.back() = '\0';
        // The package's path, not the firmware's name: it tells which package was looked at.
        FW_LOGE("Error: %s not need update, version is %s", imagePath_.c_str(),
                activeVersion.data());
    }
    needUpdate_.set(need != 0);
    expectedTime_.set(static_cast<int>(information_.expectedSeconds));
    return need;
}

int FWUpdateSymbol::updateFirmware(CallerTypes caller, char* arg)
{
    if (!isLoaded_) {
        return because(ModuleReason::kNoPlugIn);
    }
    FW_LOGE("%s Firmware Update Try", firmwareName_.c_str());
    const UPDATE_TYPE type = CallerToUpdateType(caller, arg);
    if (type == UPDATE_EMP && !mountEMPImage()) {
        return -1;
    }

    const std::string informationPath = getInformationPath(type);
    if (!file_exists(informationPath)) {
        FW_LOGE("Error: Firmware json file no exist (%s)", informationPath.c_str());
        return because(ModuleReason::kNoInformation);
    }
    if (!loadInformation(informationPath)) {
        FW_LOGE("Error: json information load fail");
        return because(ModuleReason::kBadInformation);
    }
    const std::string imagePath = getBinaryPath(type);
    if (!file_exists(imagePath)) {
        FW_LOGE("Error: Firmware binary file no exist (%s)", imagePath.c_str());
        return because(ModuleReason::kNoImage);
    }

    prctl(PR_SET_NAME, firmwareName_.c_str());
    static std::mutex update_mutex;
    const std::lock_guard<std::mutex> lock(update_mutex);

    if (setContext(caller, arg) != 0) {
        return because(ModuleReason::kContextRefused);
    }
    int need = -1;
    if (checkVersion(information_.version.c_str(), &need) != 0) {
        FW_LOGE("Error: %s Firmware CheckVersion Fail", firmwareName_.c_str());
        return because(ModuleReason::kCheckFailed);
    }
    if (need < 1) {
        FW_LOGE("Error: %s Firmware not need update", firmwareName_.c_str());
        blame(ModuleReason::kUpToDate);
        if (type == UPDATE_EMP) {
            unmountEMPImage();
        }
        return 0;
    }
    // From here on a failure leaves the package mounted: it can be looked into, and the
    // next attempt mounts it afresh.
    if (information_.crc != getBinaryCRC32(imagePath) || isSpecialFile(imagePath)) {
        FW_LOGE("Error: %s Firmware crc32 different", firmwareName_.c_str());
        return because(ModuleReason::kBadChecksum);
    }

    FW_LOGE("========== [ %s update start ] ==========", firmwareName_.c_str());
    const int result = doUpdate(imagePath.c_str(), information_.crc, 0);
    if (result != 0) {
        FW_LOGE("Error: %s Firmware doUpdate Fail %d (%d:%m)", firmwareName_.c_str(), result,
                errno);
        blame(ModuleReason::kUpdateFailed);
        return result;
    }
    FW_LOGE("========== [ %s update succeeded ] ==========", firmwareName_.c_str());
    if (type == UPDATE_EMP) {
        static_cast<void>(std::remove(imagePath_.c_str()));
        unmountEMPImage();
    }
    return 0;
}

int FWUpdateSymbol::runProcess(CallerTypes caller, char* arg)
{
    FW_LOGE("%s Firmware runProcess Try", firmwareName_.c_str());
    prctl(PR_SET_NAME, firmwareName_.c_str());
    static std::mutex update_mutex;
    const std::lock_guard<std::mutex> lock(update_mutex);

    if (setContext(caller, arg) != 0) {
        return because(ModuleReason::kContextRefused);
    }
    // The library's name stands where the others get their image's path.
    const int result = doUpdate(libName_->c_str(), 0, 0);
    if (result != 0) {
        FW_LOGE("Error: %s runProcess Fail (%d:%m)", libName_->c_str(), errno);
        return because(ModuleReason::kUpdateFailed);
    }
    return 0;
}

std::string FWUpdateSymbol::imageOn(const char* stick) const
{
    return stick + firmwareName_ + ".bin";
}

// updateUSB and getNeedUpdateList go the same way in words of their own, and count differently:
// each log line carries its function, so they stay two.

int FWUpdateSymbol::updateUSB(const unsigned char* ckey, const char* path)
{
    if (ckey == nullptr) {
        FW_LOGE("Error: ckey  is nullptr");
        return because(ModuleReason::kNoKey);
    }
    if (path == nullptr) {
        FW_LOGE("Error: image_path is nullptr");
        return because(ModuleReason::kNoDirectory);
    }

    const std::string imagePath = imageOn(path);
    struct stat opened = {};
    quillon::UniqueFile image = quillon::openRegularStream(imagePath, opened);
    if (!image) {
        const char* const trouble = troubleOf(opened);
        FW_LOGE("Error: %s file open", imagePath.c_str());
        return because(ModuleReason::kNoImage, trouble);
    }
    // The verifier goes by the path; what is deciphered must be the very file that it saw.
    if (uep_verify(imagePath.c_str()) == 0 || !quillon::isStillSameFile(imagePath, opened)) {
        FW_LOGE("Error: %s file is NOT signed ", imagePath.c_str());
        return because(ModuleReason::kNotSigned);
    }

    // A record that nothing was loaded into is refused: its entries cannot be called.
    if (!setContext_ || !checkVersion_) {
        FW_LOGE("Error: %s has no plug-in", libName_->c_str());
        return because(ModuleReason::kNoPlugIn);
    }
    // The answer does not matter: checkVersion decides.
    setContext(CALLER_USB_IMAGE, quillon::emptyText());

    const std::int64_t size = opened.st_size;
    quillon::ReadWitness witness(size, wantedDigest());
    std::array<unsigned char, kIvSize> iv{};
    if (std::fread(iv.data(), 1, iv.size(), image.get()) < iv.size()) {
        FW_LOGE("Error: iv is worng");
        return because(ModuleReason::kTooShort);
    }
    witness.saw(iv.data(), iv.size());

    // Never released: a plug-in that goes on reading the payload after its entry
    // returned does not bring the service down.
    int outlen = 0;
    unsigned char* data = decipherImage(image.get(), ckey, iv.data(),
                                        size - static_cast<std::int64_t>(kIvSize), outlen, witness);
    if (data == nullptr) {
        FW_LOGE("Error: Decryption data is null");
        return because(ModuleReason::kNotDeciphered);
    }
    quillon::UnseenMemory plaintext(data, static_cast<std::size_t>(size) - kIvSize);
    const VersionHeader header = versionHeaderOf(data, outlen);
    outlen -= FW_PLUGIN_HEADER_SIZE;
    image.reset();
    if (!isDigestSigned(witness, path, firmwareName_)) {
        FW_LOGE("Error: %s file is NOT signed ", imagePath.c_str());
        return because(ModuleReason::kNotSigned);
    }

    int need = -1;
    offer(header.data());
    if (checkVersion(header.data(), &need) != 0) {
        FW_LOGE("Error: %s Firmware CheckVersion Fail", firmwareName_.c_str());
        return because(ModuleReason::kCheckFailed);
    }
    if (need <= 0) {
        FW_LOGE("Error: %s Firmware not need update", firmwareName_.c_str());
        return because(ModuleReason::kUpToDate);
    }

    FW_LOGE("========== [ %s update start ] ==========", firmwareName_.c_str());
    int result = -1;
    if (outlen >= 0) {  // a damaged image may hold less than a header: nothing to hand on
        plaintext.show();
        result = doUpdate_decryption(data + FW_PLUGIN_HEADER_SIZE, outlen);
    }
    if (result != 0) {
        FW_LOGE("Error: %s Firmware doUpdate Fail %d (%d:%m)", firmwareName_.c_str(), result,
                errno);
        blame(ModuleReason::kUpdateFailed);
        return result;
    }
    FW_LOGE("========== [ %s update succeeded ] ==========", firmwareName_.c_str());
    return 0;
}

int FWUpdateSymbol::getNeedUpdateList(const unsigned char* ckey, const char* path)
{
    if (ckey == nullptr) {
        FW_LOGE("Error: ckey  is nullptr");
        return because(ModuleReason::kNoKey);
    }
    if (path == nullptr) {
        FW_LOGE("Error: image_path is nullptr");
        return because(ModuleReason::kNoDirectory);
    }

    const std::string imagePath = imageOn(path);
    struct stat opened = {};
    quillon::UniqueFile image = quillon::openRegularStream(imagePath, opened);
    if (!image) {
        const char* const trouble = troubleOf(opened);
        FW_LOGE("Error: %s open fail", imagePath.c_str());
        return because(ModuleReason::kNoImage, trouble);
    }
    if (uep_verify(imagePath.c_str()) == 0 || !quillon::isStillSameFile(imagePath, opened)) {
        FW_LOGE("Error: %s is NOT signed ", imagePath.c_str());
        return because(ModuleReason::kNotSigned);
    }

    // A record that nothing was loaded into is refused: its entries cannot be called.
    if (!setContext_ || !checkVersion_) {
        FW_LOGE("Error: %s has no plug-in", libName_->c_str());
        return because(ModuleReason::kNoPlugIn);
    }
    setContext(CALLER_USB_IMAGE, quillon::emptyText());

    const std::int64_t size = opened.st_size;
    quillon::ReadWitness witness(size, wantedDigest());
    std::array<unsigned char, kIvSize> iv{};
    if (std::fread(iv.data(), 1, iv.size(), image.get()) < iv.size()) {
        FW_LOGE("Error: iv is worng");
        return because(ModuleReason::kTooShort);
    }
    witness.saw(iv.data(), iv.size());

    // The whole size counts here, unlike in updateUSB: 16 bytes of the trailer are
    // deciphered as well, which only shows behind the header.
    int outlen = 0;
    unsigned char* data = decipherImage(image.get(), ckey, iv.data(), size, outlen, witness);
    if (data == nullptr) {
        FW_LOGE("Error: Decryption data is null");
        return because(ModuleReason::kNotDeciphered);
    }
    const quillon::UnseenMemory plaintext(data, static_cast<std::size_t>(size));
    const VersionHeader header = versionHeaderOf(data, outlen);
    image.reset();
    if (!isDigestSigned(witness, path, firmwareName_)) {
        FW_LOGE("Error: %s is NOT signed ", imagePath.c_str());
        return because(ModuleReason::kNotSigned);
    }

    int need = -1;
    offer(header.data());
    if (checkVersion(header.data(), &need) != 0) {
        FW_LOGE("Error: %s Firmware CheckVersion Fail", firmwareName_.c_str());
        return because(ModuleReason::kCheckFailed);
    }

    int seconds = 0;
    if (getExpectedTime(&seconds) == 0) {
        needUpdate_.set(need != 0);
        expectedTime_.set(seconds);
        blame(need == 0 ? ModuleReason::kUpToDate : ModuleReason::kNone);
        return need;
    }
    FW_LOGE("Error: %s getExpectedTime Fail", firmwareName_.c_str());
    blame(ModuleReason::kNoDuration);
    return 0;
}
