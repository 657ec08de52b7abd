/// The whole service in the test's process, from the first line of its main to the last.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>

#include <string>
#include <vector>

#include "quillon-service-client.h"
#include "quillon-service.h"
#include "support/device-fixture.h"

/// main of the service, which quillon-core holds under another name.
int quillon_service_main();

namespace quillon::test {

inline constexpr const char* kLabellingReady = "/tmp/smack_early_ready";
inline constexpr const char* kLifeMarker = "/tmp/fw_update_ready_usb";

/// A device on which the service starts at once and finds everything that it needs.
class ServiceTest : public DeviceTest
{
protected:
    ServiceTest()
    {
        writeFile(kLabellingReady, "");
        writeFile(kLifeMarker, "");
        fakes::platform().items["quillon"] = Bytes(32, 0x5a);
        // Whether the machine of the tests keeps security labels is nobody's business here.
        fakes::failCall("setxattr", ENOTSUP, 2);
    }
    void TearDown() override
    {
        if (service.valid()) {
            stop();
        }
        DeviceTest::TearDown();
    }

    /// Runs the service until its control channel is served.
    void start()
    {
        begin();
        if (!waitForLine("set_service_running_done Done")) {
            ADD_FAILURE() << "the service does not start";
            std::_Exit(1);
        }
    }

    /// Runs the service until its main task has begun.
    void begin()
    {
        service = std::async(std::launch::async, quillon_service_main);
        if (!waitForLine("smart_deadlock_register_watchdog_service(60) = 0")) {
            ADD_FAILURE() << "the main task does not start";
            std::_Exit(1);
        }
    }

    void stop()
    {
        Client().send(4);
        tickOften();
        removeMarker();
        result();
    }

    static void removeMarker() { static_cast<void>(unlink(kLifeMarker)); }

    bool isRunning()
    {
        return service.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready;
    }

    int result()
    {
        if (service.wait_for(std::chrono::seconds(kPatienceSeconds)) != std::future_status::ready) {
            ADD_FAILURE() << "the service does not end";
            std::_Exit(1);
        }
        return service.get();
    }

    /// What the thread did that ran the service's main.
    static std::vector<fakes::Entry> initialThread()
    {
        std::vector<fakes::Entry> entries;
        for (const fakes::Entry& entry : fakes::timeline()) {
            if (entries.empty() || entry.thread == entries.front().thread) {
                entries.push_back(entry);
            }
        }
        return entries;
    }

    std::future<int> service;
};

}  // namespace quillon::test
