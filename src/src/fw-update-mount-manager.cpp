#include "fw-update-mount-manager.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <fstream>

#include "platform/privileged.h"
#include "support/log.h"
#include "support/paths.h"

namespace {

constexpr const char* kMountOptions = "ro,loop,nodev,nosuid";
constexpr const char* kLoopDevice = "/dev/loop";
constexpr const char* kLoopControl = "/dev/loop-control";
constexpr int kLoopDeviceLimit = 250;
constexpr mode_t kMountPointMode = 0775;

constexpr int kRequestSize = 1024;
using Request = std::array<char, kRequestSize>;

Request mountRequest(const char* options, const char* src, const char* dest)
{
    Request request{};
    static_cast<void>(
        std::snprintf(request.data(), request.size(), "-o %s %s %s", options, src, dest));
    return request;
}

// The two blanks before "b" belong to the request.
Request nodeRequest(int number)
{
    Request request{};
    static_cast<void>(std::snprintf(request.data(), request.size(),
                                    "-m 0660 -Z * /dev/loop%d  b 7 %d", number, number));
    return request;
}

bool beginsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

}  // namespace

bool loop_mount(const char* src, const char* dest, const char* options)
{
    const Request mount = mountRequest(options, src, dest);
    FW_LOGI("PsMntCmd:[%s]", mount.data());
    int result = 0;
    int retVal = PS_Mount(mount.data(), kRequestSize, 0, &result);
    if (retVal == 0 && result == 0) {
        return true;
    }
    FW_LOGI("Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]", src, dest, retVal,
            result);

    const int present = countPresentLoopDevices();
    const int mounted = countMountedLoopDevices();
    FW_LOGI("loop count is %d, mount count is %d", present, mounted);
    if (present != mounted || mounted >= kLoopDeviceLimit) {
        return false;
    }

    // Every node is in use. A number that another mount has just made fails here and is passed by.
    for (int number = mounted; number < kLoopDeviceLimit; ++number) {
        const Request node = nodeRequest(number);
        result = 0;
        retVal = PS_Mknod(node.data(), kRequestSize, 0, &result);
        if (retVal != 0 || result != 0) {
            FW_LOGE("PS_Mknod error, retVal: [%d], result: [%d]", retVal, result);
            continue;
        }
        result = 0;
        retVal = PS_Mount(mount.data(), kRequestSize, 0, &result);
        if (retVal == 0 && result == 0) {
            return true;
        }
        FW_LOGE("Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]", src, dest, retVal,
                result);
    }
    return false;
}

int countMountedLoopDevices()
{
    std::ifstream table(quillon::paths::kMountTable);
    int count = 0;
    for (std::string line; std::getline(table, line);) {
        if (beginsWith(line, kLoopDevice)) {
            ++count;
        }
    }
    return count;
}

int countPresentLoopDevices()
{
    int count = 0;
    for (const auto& entry : boost::filesystem::directory_iterator(quillon::paths::kDevices)) {
        const std::string path = entry.path().string();
        if (beginsWith(path, kLoopDevice) && !beginsWith(path, kLoopControl)) {
            ++count;
        }
    }
    return count;
}

bool IsFile(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool IsDir(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

FWMountManager* FWMountManager::getInstance()
{
    static FWMountManager instance;
    return &instance;
}

int FWMountManager::Mount(const std::string& src, const std::string& dest)
{
    if (src.empty() || dest.empty()) {
        FW_LOGE("Source file or dest dir is empty.");
        return -1;
    }
    if (!IsFile(src.c_str())) {
        FW_LOGE("srcFile[%s] is not exist.", src.c_str());
        return -1;
    }
    // What is there is used as it is: whether it can be mounted on, the mount itself tells.
    if (access(dest.c_str(), F_OK) != 0) {
        const int made = mkdir(dest.c_str(), kMountPointMode);
        if (made != 0) {
            const int error = errno;
            std::array<char, 256> buffer{};
            const char* text = strerror_r(error, buffer.data(), buffer.size());
            FW_LOGE("Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]",
                    dest.c_str(), made, error, text, buffer.data());
            return -1;
        }
    }
    return loop_mount(src.c_str(), dest.c_str(), kMountOptions) ? 0 : -1;
}

int FWMountManager::UMount(const std::string& dir)
{
    try {
        if (dir.empty()) {
            FW_LOGE("Input umount dir is empty.");
            return -1;
        }
        if (!IsDir(dir.c_str())) {
            FW_LOGE("Umount dir[%s] is invalid.", dir.c_str());
            return -1;
        }
        int result = 0;
        const int retVal = PS_Umount(dir.c_str(), static_cast<int>(dir.length()), 0, &result);
        if (retVal == 0 && result == 0) {
            FW_LOGI("Umount dir[%s] successfully.", dir.c_str());
            return 0;
        }
        FW_LOGE("Error(iRet1=%d, iRet2=%d) while unmounitng [%s]", retVal, result, dir.c_str());
        return -1;
    } catch (const std::exception& error) {
        FW_LOGE("Failed to umount[%s], error[%s].", dir.c_str(), error.what());
        return -1;
    }
}
