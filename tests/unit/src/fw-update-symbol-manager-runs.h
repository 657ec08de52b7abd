/// Runs of the control layer over the registry: modules with something on offer for them.
#pragma once

#include <semaphore.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "fw-update-common.h"
#include "fw-update-symbol-manager-registry.h"
#include "support/checksum.h"

namespace quillon::test {

inline constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";
inline constexpr std::chrono::seconds kLongEnough{50};

/// Threads wait before it until somebody opens it.
class Gate
{
public:
    void open()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            isOpen_ = true;
        }
        changed_.notify_all();
    }
    void pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return isOpen_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isOpen_ = false;
};

/// A module that needs an update, which ends when the guard is waiting for it: a worker that ends
/// before that is not seen.
inline Module updatedOnTime()
{
    return Module().needsUpdate().onUpdate(
        [](const char* /*path*/, unsigned long /*value*/) { fakes::awaitTimedWait(); });
}

inline std::string succeeded(const std::string& firmwareName)
{
    return "========== [ " + firmwareName + " update succeeded ] ==========";
}

class RunTest : public RegistryTest
{
protected:
    /// A module with a package, and with an image in the system's area.
    void addModule(const std::string& name, const Module& module = updatedOnTime(),
                   std::uint32_t seconds = 30)
    {
        device.addModule(name, module);
        offer(name, name + "emp", seconds);
    }

    /// What the package and the system's area hold for a firmware.
    static void offer(const std::string& firmware, const std::string& package,
                      std::uint32_t seconds)
    {
        writeFile("/opt/usr/apps/appbinarymanager/" + package + ".img", "package");
        offerIn("/opt/usr/apps/appbinarymanager/emps/" + package + "/", firmware, seconds);
        offerIn("/lib/firmware/ext/" + firmware + "/", firmware, seconds);
    }

    /// @param skip  whether process modules are left out
    void start(bool skip = true)
    {
        fakes::note("the test's own thread");
        ownThread_ = fakes::timeline().back().thread;
        ASSERT_TRUE(manager->getIsReady(skip));
        fakes::clear();
    }

    FWUpdateSymbol& module(const std::string& name)
    {
        for (FWUpdateSymbol& module : manager->modules()) {
            if (module.getLibName() == name) {
                return module;
            }
        }
        throw std::invalid_argument("no module " + name);
    }

    /// What the test's own thread did, without the workers.
    std::vector<fakes::Entry> ownTimeline() const
    {
        std::vector<fakes::Entry> entries;
        for (const fakes::Entry& entry : fakes::timeline()) {
            if (entry.thread == ownThread_) {
                entries.push_back(entry);
            }
        }
        return entries;
    }

    std::vector<std::string> ownTexts(fakes::Kind kind) const
    {
        std::vector<std::string> texts;
        for (const fakes::Entry& entry : ownTimeline()) {
            if (entry.kind == kind) {
                texts.push_back(entry.text);
            }
        }
        return texts;
    }

    static void awaitText(const std::string& text)
    {
        EXPECT_TRUE(fakes::waitForText(text, kLongEnough)) << text;
    }

    /// Empties the registry and waits until the module's late workers have gone as well: its
    /// library is closed after the last of them.
    void awaitEndOf(const std::string& name)
    {
        fakes::recordCalls({"dlclose"});
        manager->onDestroy();
        awaitText(closed(name));
    }

    static std::string closed(const std::string& name)
    {
        return "dlclose(\"/usr/fwupdate/controls/" + name + ".so\") = 0";
    }

    /// The names of the modules whose plug-in was asked for that entry, in order.
    static std::vector<std::string> askedFor(const std::string& entry)
    {
        std::vector<std::string> names;
        for (const std::string& call : fakes::pluginTexts()) {
            const std::size_t at = call.find("." + entry + "(");
            if (at != std::string::npos) {
                names.push_back(call.substr(0, at));
            }
        }
        return names;
    }

    /// 1 when nobody holds the update semaphore.
    static int semaphoreValue()
    {
        int value = -1;
        sem_getvalue(FWUpdateCommon::getInstance().create_semaphore(), &value);
        return value;
    }

    char noText[1] = {};

private:
    static void offerIn(const std::string& directory, const std::string& firmware,
                        std::uint32_t seconds)
    {
        const Bytes image = bytesOf("image of " + firmware);
        writeFile(directory + firmware + ".bin", image);
        writeFile(directory + "info.json",
                  "{\"version\": \"2.0\", \"crc\": " +
                      std::to_string(imageChecksum(0, image.data(), image.size())) +
                      ", \"expected_time\": " + std::to_string(seconds) + "}");
    }

    unsigned int ownThread_ = 0;
};

}  // namespace quillon::test
