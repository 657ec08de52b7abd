#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "captured-stderr.h"
#include "local-http-server.h"

/// Keeps what the callback of downloads is told.
class ToldEnds
{
public:
    using End = std::pair<std::string, int>;  ///< identifier and status

    /// To be passed with `this` as user data.
    static void callback(const std::string& identifier, int status, void* self);

    /// Waits until that many ends were told; fails the test after 90 seconds.
    std::vector<End> waitFor(std::size_t count);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<End> ends_;
};

/// The virtual device's packages' directory and configuration of downloads, both empty at first.
class DownloadFixture : public testing::Test
{
protected:
    static constexpr char kDirectory[] = "/opt/usr/apps/appbinarymanager";
    static constexpr char kConfiguration[] = "/etc/quillon/downloads.conf";

    void SetUp() override;
    void TearDown() override;

    /// Writes the configuration file.
    static void configure(const std::string& text);
    /// The same for that server, with a minute of patience, no pauses and more lines.
    static void configureFor(const std::string& address, const std::string& more = "");
    /// A line for those whose server stands still.
    static constexpr char kImpatience[] = "stall-timeout = 1\n";

    /// Requests a package and waits for its end.
    /// @return the status that the callback is told; 1 when the request is not accepted
    static int download(const std::string& identifier);

    static std::string pathOf(const std::string& name) { return kDirectory + ("/" + name); }
    /// Names of what this user's unfinished download of a package leaves in the directory.
    static std::string partOf(const std::string& identifier)
    {
        return "." + identifier + "." + std::to_string(geteuid()) + ".part";
    }
    static std::string noteOf(const std::string& identifier)
    {
        return "." + identifier + "." + std::to_string(geteuid()) + ".resume";
    }
    /// Names of all that lies in the packages' directory, but for the directory for mounts.
    static std::vector<std::string> namesInDirectory();

    /// Bytes of a package, the same ones for each size.
    static std::string packageOf(std::size_t size);

    /// Answers as a server should: the whole package or the part that was asked for, under a tag.
    static void sendPackage(const HttpRequest& request, HttpConnection& connection,
                            const std::string& package, const std::string& tag = "\"one\"");
    /// The first reply of such a server, cut after that many bytes of the package.
    static void sendBeginning(HttpConnection& connection, const std::string& package,
                              std::size_t bytes, const std::string& tag = "\"one\"");

private:
    static void emptyDirectory();
};
