#include "fw-update-symbol-manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/fd.h"
#include "base/handles.h"
#include "fw-update-common.h"
#include "platform/events.h"
#include "platform/power.h"
#include "platform/system-info.h"
#include "support/log.h"
#include "support/module-observer.h"
#include "support/paths.h"
#include "support/read-ahead.h"
#include "support/text.h"

using quillon::blame;
using quillon::ModuleEvent;
using quillon::ModuleReason;
using quillon::RunEvent;
using quillon::tell;

namespace {

constexpr int kSoftwareVersionKey = 128;

// The plug-ins' own estimates may be anything; their sum wraps instead of overflowing.
int addSeconds(int sum, int seconds)
{
    return static_cast<int>(static_cast<unsigned int>(sum) + static_cast<unsigned int>(seconds));
}

constexpr int kPowerLock = 2;
constexpr std::int64_t kPowerMarginMs = 5000;
constexpr unsigned int kGraceSeconds = 2;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr mode_t kUpdateListMode = 0666;  // less the process's own mask

/// For a platform call that takes no more; times that long mean the same.
int clampToInt(std::int64_t value)
{
    return static_cast<int>(std::min<std::int64_t>(value, std::numeric_limits<int>::max()));
}

unsigned int expectedSeconds(const FWUpdateSymbol& module)
{
    return static_cast<unsigned int>(module.getExpectedUpdateTime());
}

/// What a guard and its worker share, for as long as either of them needs it.
struct Rendezvous
{
    Rendezvous(const FWUpdateSymbol& updated, const char* argument)
        : module(updated), hasText(argument != nullptr), text(hasText ? argument : "")
    {
    }

    /// As the caller's, but the empty one stays valid for ever: plug-ins may keep it.
    char* argument()
    {
        if (!hasText) {
            return nullptr;
        }
        return text.empty() ? quillon::emptyText() : text.data();
    }

    std::mutex mutex;
    std::condition_variable done;
    std::atomic<int> result{0};
    FWUpdateSymbol module;  // a copy, which holds the library open
    bool hasText;
    std::string text;
};

/// The worker's part. It signals without the lock: the guard's wait ends by a signal
/// that it hears, and one that comes before it listens counts as late.
void work(Rendezvous& rendezvous, CallerTypes caller)
{
    int result = -1;
    tell(ModuleEvent::kStarted, rendezvous.module);
    try {
        result = rendezvous.module.updateFirmware(caller, rendezvous.argument());
    } catch (const std::exception& error) {
        FW_LOGE("Error: %s update exception %s", rendezvous.module.getFirmwareName().c_str(),
                error.what());
        blame(ModuleReason::kException, error.what());
    } catch (...) {
        // An exception of a plug-in ends its update, not the process. The one that cannot be had is
        // the C library's: the plug-in ended its thread, and the library insists on the rest of it.
        if (std::current_exception() == nullptr) {
            tell(ModuleEvent::kEnded, rendezvous.module, result);
            rendezvous.result.store(result);
            rendezvous.done.notify_one();
            throw;
        }
        FW_LOGE("Error: %s update exception of an unknown kind",
                rendezvous.module.getFirmwareName().c_str());
        blame(ModuleReason::kException);
    }
    tell(ModuleEvent::kEnded, rendezvous.module, result);
    rendezvous.result.store(result);
    rendezvous.done.notify_one();
}

/// Has a module decide whether it needs an update, and tells the observer before and afterwards.
/// @param decide  returns the need value, or -1
template <typename Decide>
int decided(const FWUpdateSymbol& module, Decide decide)
{
    tell(ModuleEvent::kChecking, module);
    const int need = decide();
    tell(ModuleEvent::kDecided, module, need);
    return need;
}

/// The images that a run is about to read from a stick, one of each module; empty where it reads
/// none.
/// @param key, stick  without one of them nothing is read
/// @param isRead  whether the module's is read
template <typename IsRead>
std::vector<std::string> imagesOn(const unsigned char* key, const char* stick,
                                  const std::vector<FWUpdateSymbol>& modules, IsRead isRead)
{
    std::vector<std::string> images(modules.size());
    if (key != nullptr && stick != nullptr) {
        std::transform(modules.begin(), modules.end(), images.begin(),
                       [&](const FWUpdateSymbol& one) {
                           return isRead(one) ? one.imageOn(stick) : std::string();
                       });
    }
    return images;
}

/// Opens the update list anew. Nothing that somebody put there can lead or hold up the writing: no
/// link, no FIFO, and no second name of somebody's file, which is emptied only after it was looked
/// at.
quillon::UniqueFile createUpdateList()
{
    quillon::UniqueFd descriptor(open(quillon::paths::kUpdateList,
                                      O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                      kUpdateListMode));
    struct stat status = {};
    if (descriptor.get() == -1 || fstat(descriptor.get(), &status) != 0 ||
        !S_ISREG(status.st_mode) || status.st_nlink != 1 || ftruncate(descriptor.get(), 0) != 0) {
        return nullptr;
    }
    quillon::UniqueFile file(fdopen(descriptor.get(), "w"));
    if (file) {
        static_cast<void>(descriptor.release());
        // Each line is out at once: a plug-in that forks must not write what is still held back
        // again, and one that crashes must not take it along.
        static_cast<void>(std::setvbuf(file.get(), nullptr, _IOLBF, 0));
    }
    return file;
}

/// Whether the update list may be written: the path must not lead elsewhere.
bool check_race_condition()
{
    struct stat status = {};
    if (lstat(quillon::paths::kUpdateList, &status) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        FW_LOGE("lstat error\n");
        return false;
    }
    if (S_ISLNK(status.st_mode)) {
        FW_LOGE("symbolic link is detected\n");
        return false;
    }
    return true;
}

template <std::size_t size>
void copyText(char (&field)[size], const char* text)
{
    std::memset(field, 0, size);
    if (text != nullptr) {
        std::memcpy(field, text, strnlen(text, size - 1));
    }
}

FWUpdateItem itemOf(FWUpdateSymbol& module)
{
    // One byte more than the plug-in is promised: a text without terminator ends there.
    std::array<char, FW_PLUGIN_TEXT_SIZE + 1> version{};
    module.getActiveVersion(version.data());  // a refusal leaves the text empty, or as it is
    version.back() = '\0';
    return FWUpdateItem(module.getLibName().c_str(), version.data(),
                        module.getFirmwareName().c_str());
}

}  // namespace

FWUpdateItem::FWUpdateItem(const char* libNameText, const char* versionText,
                           const char* firmwareNameText)
{
    copyText(libName, libNameText);
    copyText(version, versionText);
    copyText(firmwareName, firmwareNameText);
}

FWUpdateItem::FWUpdateItem(const FWUpdateItem& other)
    : FWUpdateItem(other.libName, other.version, other.firmwareName)
{
}

int update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds, CallerTypes caller,
                           char* text)
{
    const auto rendezvous = std::make_shared<Rendezvous>(module, text);
    FW_LOGE("%s update time %d ms", module.getFirmwareName().c_str(), static_cast<int>(seconds));

    sem_t* semaphore = FWUpdateCommon::getInstance().create_semaphore();
    if (semaphore == nullptr) {
        return -1;
    }
    sem_wait(semaphore);

    try {
        std::thread([rendezvous, caller] { work(*rendezvous, caller); }).detach();
    } catch (...) {
        sem_post(semaphore);
        throw;
    }

    std::unique_lock<std::mutex> lock(rendezvous->mutex);
    const std::chrono::nanoseconds allowed(std::int64_t{seconds + kGraceSeconds} *
                                           kNanosecondsPerSecond);
    const auto deadline = std::chrono::steady_clock::now() + allowed;
    // One wait without a predicate: any wake-up in time ends it.
    if (rendezvous->done.wait_until(lock, deadline) == std::cv_status::no_timeout) {
        sem_post(semaphore);
        return rendezvous->result.load();
    }
    sem_post(semaphore);
    tell(ModuleEvent::kLate, module);
    const std::string message = module.getFirmwareName() + " update timeout";
    FW_LOGE("%s", message.c_str());
    throw std::runtime_error(message);
}

void update_module(FWUpdateSymbol& module, CallerTypes caller, char* text)
{
    static_cast<void>(module.updateFirmware(caller, text));
}

FWUpdateSymbolManager* FWUpdateSymbolManager::getInstance()
{
    static FWUpdateSymbolManager instance;
    return &instance;
}

FWUpdateSymbolManager::~FWUpdateSymbolManager()
{
    onDestroy();
}

bool FWUpdateSymbolManager::getIsReady(bool skip)
{
    if (isReady_) {
        return true;
    }
    isReady_ = onCreate(skip);
    return isReady_;
}

bool FWUpdateSymbolManager::onCreate(bool skip)
{
    try {
        for (const auto& entry : boost::filesystem::directory_iterator(quillon::paths::kModules)) {
            const std::string stem = entry.path().stem().string();
            if (skip && quillon::toUpper(stem).find("EXT-") != std::string::npos) {
                FW_LOGE("En/Decryption Service EXT skip [%s]", stem.c_str());
                continue;
            }
            if (entry.path().extension().string() != ".so") {
                continue;
            }
            modules_.emplace_back(stem);
        }
    } catch (const boost::filesystem::filesystem_error& error) {
        FW_LOGE("File System Exception: %s ", error.what());
        return false;
    }

    for (FWUpdateSymbol& module : modules_) {
        tell(ModuleEvent::kLoading, module);
        const int result = module.loadSymbol(module.getLibName());
        tell(ModuleEvent::kLoaded, module, result);
    }
    quillon::tellRun({RunEvent::kModulesLoaded, ""});

    if (getSWVersionString() != 0) {
        FW_LOGE("Error: getSwVersion fail");
    }
    return true;
}

int FWUpdateSymbolManager::getSWVersionString()
{
    char* value = nullptr;
    if (system_info_get_value_string(kSoftwareVersionKey, &value) != 0 || value == nullptr) {
        FW_LOGE("Unable to read SW version from system-info");
        return -1;
    }
    const quillon::UniqueMemory<char> owner(value);

    const std::string version = value;
    const std::size_t dash = version.rfind('-');
    if (dash == std::string::npos) {
        FW_LOGE("getSWVersionString: Wrong string format - lack of dash: %s", value);
        return -1;
    }
    swVersion_ = version.substr(0, dash);
    FW_LOGI("SWModel : %s", swVersion_.c_str());
    return 0;
}

int FWUpdateSymbolManager::getFirmwareUpdateTime(const unsigned char* key, const char* path,
                                                 int& total)
{
    quillon::ToldRun run(RunEvent::kEstimateBegan, RunEvent::kEstimateEnded, path);
    if (modules_.empty()) {
        total = 0;
        return -1;
    }

    int result = -1;
    int sum = 0;
    quillon::ReadAhead images(
        imagesOn(key, path, modules_, [](const FWUpdateSymbol&) { return true; }));
    for (std::size_t i = 0; i < modules_.size(); ++i) {
        FWUpdateSymbol& module = modules_[i];
        images.reach(i);
        if (decided(module, [&] { return module.getNeedUpdateList(key, path); }) != 1) {
            continue;
        }
        FW_LOGE("Need Update [%s] [%d]", module.getFirmwareName().c_str(),
                module.getExpectedUpdateTime());
        sum = addSeconds(sum, module.getExpectedUpdateTime());
        result = 0;
    }
    total = sum;
    return run.endWith(result);
}

int FWUpdateSymbolManager::doUpdateUSB(const unsigned char* key, const char* path)
{
    quillon::ToldRun run(RunEvent::kUpdateBegan, RunEvent::kUpdateEnded, path);
    if (modules_.empty()) {
        return -1;
    }

    int result = -1;
    quillon::ReadAhead images(imagesOn(
        key, path, modules_, [](const FWUpdateSymbol& one) { return one.getNeedUpdate(); }));
    for (std::size_t i = 0; i < modules_.size(); ++i) {
        FWUpdateSymbol& module = modules_[i];
        if (!module.getNeedUpdate()) {
            continue;
        }
        images.reach(i);
        tell(ModuleEvent::kStarted, module);
        result = module.updateUSB(key, path);
        tell(ModuleEvent::kEnded, module, result);
        if (result == -1) {
            FW_LOGE("update fail [%s]", module.getFirmwareName().c_str());
            return -1;
        }
    }
    return run.endWith(result);
}

int FWUpdateSymbolManager::doUpdateFirmwareAll(CallerTypes /*caller*/)
{
    FW_LOGE("Try doUpdateFirmwareAll");
    LwipcEventDone(quillon::paths::kIgnoreResumeEvent);

    int count = 0;
    std::int64_t total = 0;
    for (const FWUpdateSymbol& module : modules_) {
        if (module.getNeedUpdate()) {
            ++count;
            total += std::int64_t{expectedSeconds(module)} * 1000;
        }
        FW_LOGE("%s Firmware Expected Time Check Done", module.getLibName().c_str());
    }
    if (modules_.empty() || count == 0) {
        FW_LOGE("There is no update item");
        return 0;
    }

    FW_LOGE("about total update time is %d ms, Lock the power during about that time.",
            clampToInt(total));
    device_power_lock_state(kPowerLock, clampToInt(count * kPowerMarginMs + total));
    FW_LOGE("device_power_lock_state done");

    for (FWUpdateSymbol& module : modules_) {
        if (!module.getNeedUpdate()) {
            continue;
        }
        try {
            update_timeout_wrapper(module, expectedSeconds(module), CALLER_SERVICE,
                                   quillon::emptyText());
        } catch (const std::runtime_error& error) {
            FW_LOGE("Error : %s", error.what());
        }
    }
    for (FWUpdateSymbol& module : modules_) {
        module.allUpdateDone();
    }

    FW_LOGE("device_power_unlock_state");
    device_power_unlock_state(kPowerLock);
    FW_LOGE("device_power_unlock_state done");
    static_cast<void>(std::remove(quillon::paths::kUpdateList));
    return 0;
}

int FWUpdateSymbolManager::doUpdateFirmware(const std::string& name, CallerTypes caller, char* text)
{
    int result = -1;
    for (FWUpdateSymbol& module : modules_) {
        if (module.getLibName() != name) {
            continue;
        }
        if (module.getSymbolType() == 1) {
            tell(ModuleEvent::kStarted, module);
            result = module.runProcess(caller, text);
            tell(ModuleEvent::kEnded, module, result);
            continue;
        }
        if (decided(module, [&] { return module.isNeedUpdate(caller, text); }) != 1) {
            continue;
        }
        try {
            result = update_timeout_wrapper(module, expectedSeconds(module), caller, text);
        } catch (const std::runtime_error& error) {
            FW_LOGE("Error : %s", error.what());
        }
    }
    return result;
}

int FWUpdateSymbolManager::update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds,
                                                  CallerTypes caller, char* text)
{
    return ::update_timeout_wrapper(module, seconds, caller, text);
}

void FWUpdateSymbolManager::update_module(FWUpdateSymbol& module, CallerTypes caller, char* text)
{
    ::update_module(module, caller, text);
}

int FWUpdateSymbolManager::writeFirmwareUpdateList(bool& running)
{
    if (!check_race_condition()) {
        FW_LOGE("fail check_race_condition\n");
        return -1;
    }
    // A list that cannot be opened is not reported: the marks matter more.
    quillon::UniqueFile list = createUpdateList();

    int count = 0;
    for (FWUpdateSymbol& module : modules_) {
        if (!__atomic_load_n(&running, __ATOMIC_RELAXED)) {
            FW_LOGE("Task is not running, writeFirmwareUpdateList stop");
            return -1;
        }
        if (decided(module, [&] {
                return module.isNeedUpdate(CALLER_SERVICE, quillon::emptyText());
            }) != 1) {
            continue;
        }
        const std::string libName = module.getLibName();
        const std::string empName = module.getEMPName();
        if (list) {
            static_cast<void>(
                std::fprintf(list.get(), "%s %s\n", libName.c_str(), empName.c_str()));
        }
        FW_LOGE("Need Update [%s][%s]", libName.c_str(), empName.c_str());
        ++count;
    }
    return count;
}

int FWUpdateSymbolManager::allDoUpdateDone()
{
    FW_LOGE("Try allDoUpdateDone");
    for (FWUpdateSymbol& module : modules_) {
        module.allUpdateDone();
    }
    FW_LOGE("allDoUpdateDone Done");
    return 0;
}

int FWUpdateSymbolManager::getUpdateFwItems(std::list<FWUpdateItem>& items, CallerTypes caller,
                                            char* text)
{
    for (FWUpdateSymbol& module : modules_) {
        if (decided(module, [&] { return module.isNeedUpdate(caller, text); }) != 1) {
            continue;
        }
        items.push_back(itemOf(module));
    }
    return 0;
}

int FWUpdateSymbolManager::getFwItems(std::list<FWUpdateItem>& items)
{
    for (FWUpdateSymbol& module : modules_) {
        items.push_back(itemOf(module));
    }
    return 0;
}

int FWUpdateSymbolManager::getFirmwareVersion(const std::string& name, char* version,
                                              char* firmwareName)
{
    for (FWUpdateSymbol& module : modules_) {
        if (module.getLibName() != name) {
            continue;
        }
        const int result = module.getActiveVersion(version);
        const std::string firmware = module.getFirmwareName();
        std::memcpy(firmwareName, firmware.c_str(),
                    std::min<std::size_t>(firmware.size() + 1, FW_PLUGIN_TEXT_SIZE - 1));
        return result;
    }
    return -1;
}

int FWUpdateSymbolManager::getFirmwareUpdateProgress(const std::string& name,
                                                     unsigned int* progress)
{
    for (FWUpdateSymbol& module : modules_) {
        if (module.getLibName() == name) {
            return module.getUpdateProgress(progress);
        }
    }
    return -1;
}

int FWUpdateSymbolManager::downloadEMPAll()
{
    for (FWUpdateSymbol& module : modules_) {
        module.downloadEMP();
    }
    return 0;
}

const std::vector<FWUpdateSymbol>& FWUpdateSymbolManager::modules() const
{
    return modules_;
}

std::vector<FWUpdateSymbol>& FWUpdateSymbolManager::modules()
{
    return modules_;
}

bool FWUpdateSymbolManager::onDestroy()
{
    modules_.clear();
    return true;
}
