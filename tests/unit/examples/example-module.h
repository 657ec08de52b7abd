#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <type_traits>

#include "fw-update-plugin.h"
#include "support/files.h"

namespace quillon::test {

/// A module, loaded as the service loads it; its files are those of a fresh device.
class ExampleModule
{
public:
    explicit ExampleModule(const std::string& libraryName)
        : name(libraryName),
          state("/var/lib/quillon/examples/" + libraryName + "/"),
          settings("/etc/quillon/examples/" + libraryName + ".conf"),
          library(MODULES + libraryName + ".so"),
          _handle(dlopen(library.c_str(), RTLD_NOW))
    {
        EXPECT_NE(_handle, nullptr) << dlerror();
        std::filesystem::remove_all(state);
        std::filesystem::remove(settings);
    }

    ~ExampleModule()
    {
        if (_handle != nullptr) {
            dlclose(_handle);
        }
        std::filesystem::remove_all(state);
        std::filesystem::remove(settings);
    }

    ExampleModule(const ExampleModule&) = delete;
    ExampleModule& operator=(const ExampleModule&) = delete;

    /// @return the entry of that name, null when the module has none.
    template <typename Entry>
    Entry* entry(const char* symbol, Entry*) const
    {
        return reinterpret_cast<Entry*>(dlsym(_handle, symbol));
    }

    void configure(const std::string& lines) const { writeFile(settings, lines); }

    std::string file(const std::string& fileName) const { return readAll(state + fileName); }

    const std::string name;
    const std::string state;  ///< the directory of its files, ends in "/"
    const std::string settings;
    const std::string library;

private:
    void* _handle;
};

/// Calls an entry of a module by the name and the type that the contract gives it.
#define CALL(module, name) (module).entry(#name, static_cast<decltype(&::name)>(nullptr))

/// The firmware modules among the examples. What one of them does, all do.
class FirmwareModules : public ::testing::TestWithParam<const char*>
{
protected:
    int offer(const std::string& version, int* need = nullptr)
    {
        int ignored = 0;
        return CALL(module, checkVersion)(version.c_str(), need == nullptr ? &ignored : need);
    }

    int flash(const std::string& payload)
    {
        return CALL(module, doUpdate_decryption)(
            reinterpret_cast<const unsigned char*>(payload.data()),
            static_cast<int>(payload.size()));
    }

    std::string activeVersion()
    {
        char buffer[FW_PLUGIN_TEXT_SIZE] = {};
        EXPECT_EQ(CALL(module, getActiveVersion)(buffer), 0);
        return buffer;
    }

    unsigned int progress()
    {
        unsigned int percent = 1000;
        EXPECT_EQ(CALL(module, getUpdateProgress)(&percent), 0);
        return percent;
    }

    ExampleModule module{GetParam()};
};

inline const auto kFirmwareModules = ::testing::Values("tuner", "panel", "camera", "clock");

inline std::string nameOf(const ::testing::TestParamInfo<const char*>& info)
{
    return info.param;
}

}  // namespace quillon::test
