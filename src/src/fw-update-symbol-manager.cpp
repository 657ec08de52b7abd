#include "fw-update-symbol-manager.h"

#include <boost/filesystem.hpp>

#include "platform/system-info.h"
#include "support/log.h"
#include "support/paths.h"
#include "support/text.h"
#include "support/unique-handles.h"

namespace {

constexpr int kSoftwareVersionKey = 128;

// The plug-ins' own estimates may be anything; their sum wraps instead of overflowing.
int addSeconds(int sum, int seconds)
{
    return static_cast<int>(static_cast<unsigned int>(sum) + static_cast<unsigned int>(seconds));
}

}  // namespace

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
        module.loadSymbol(module.getLibName());
    }

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
    if (modules_.empty()) {
        total = 0;
        return -1;
    }

    int result = -1;
    int sum = 0;
    for (FWUpdateSymbol& module : modules_) {
        if (module.getNeedUpdateList(key, path) != 1) {
            continue;
        }
        FW_LOGE("Need Update [%s] [%d]", module.getFirmwareName().c_str(),
                module.getExpectedUpdateTime());
        sum = addSeconds(sum, module.getExpectedUpdateTime());
        result = 0;
    }
    total = sum;
    return result;
}

int FWUpdateSymbolManager::doUpdateUSB(const unsigned char* key, const char* path)
{
    if (modules_.empty()) {
        return -1;
    }

    int result = -1;
    for (FWUpdateSymbol& module : modules_) {
        if (!module.getNeedUpdate()) {
            continue;
        }
        result = module.updateUSB(key, path);
        if (result == -1) {
            FW_LOGE("update fail [%s]", module.getFirmwareName().c_str());
            return -1;
        }
    }
    return result;
}

bool FWUpdateSymbolManager::onDestroy()
{
    modules_.clear();
    return true;
}
