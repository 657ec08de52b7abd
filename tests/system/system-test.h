#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "system/channel.h"
#include "system/daemon.h"

namespace quillon::test {

constexpr const char* kModules = "/usr/fwupdate/controls/";
constexpr const char* kStick = "/opt/media/USBDriveA/";
constexpr const char* kVerifier = "/usr/lib/libkUEPUser.so";

/// How long an update may take that has nothing to wait for; sanitizers included.
constexpr std::chrono::seconds kLongestUpdate(60);

/// A device with the example modules tuner, panel and camera at version "1.0", the keys of maker
/// "a", the verifier and an empty stick; the daemon does not run yet. The modules flash as fast as
/// they can and expect to take 5 s.
class SystemTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // The device. What a module has flashed lies in files, see examples/modules/file-flash.h.

    static const std::vector<std::string>& allModules();
    static void installModule(const std::string& name);
    static void removeModule(const std::string& name);

    /// Installs a module whose behaviour the settings decide, see tests/modules/README.md; or
    /// changes it, when it is installed.
    static void installTestModule(const std::string& name, const std::string& settings);

    static void setModule(const std::string& name, long bytesPerSecond, int expectedSeconds);
    static std::string flashed(const std::string& name);
    static std::string version(const std::string& name);
    static void storeKey(const std::string& maker);
    static void removeKey();
    static void removeVerifier();

    // The stick.

    static std::string imagePath(const std::string& name);
    static void putImage(const std::string& name, const std::string& version,
                         const std::string& payload, const std::string& maker = "a");

    /// Puts an image of this version and of a payload of its own for each module on the stick.
    void putImagesForAll(const std::string& version, std::size_t payloadSize = 1000);

    /// What putImagesForAll last put on the stick for a module.
    std::string payloadOf(const std::string& name) const;

    static std::string randomBytes(std::size_t size, unsigned int seed);

    // The daemon, driven over its bare queues.

    /// Starts it, opens the channel and sets the stick's directory.
    void startDaemon();

    /// Sends command 1.
    /// @return the reply's result, or nothing when the daemon dropped the command.
    std::optional<int> start();

    /// Sends command 7.
    MQData estimate();

    /// Polls with command 6 until the run is over.
    /// @return the last reply; its result tells how the run ended.
    MQData waitForRun(std::chrono::milliseconds timeout = kLongestUpdate);

    /// Estimate, start, and poll to the end.
    /// @return the last result, or MQ_RESULT_REFUSED when the run did not start.
    int update();

    /// That every module holds what putImagesForAll last put on the stick.
    void expectAllUpdatedTo(const std::string& version);

    std::optional<Channel> channel;
    Daemon daemon;

private:
    std::map<std::string, std::string> payloads_;
    std::optional<MQData> firstProgress_;  // start() asks for it; it may already tell the end
};

}  // namespace quillon::test
