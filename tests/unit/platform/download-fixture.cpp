#include "download-fixture.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "platform/app-binary-manager.h"
#include "support/files.h"

using quillon::test::writeFile;

namespace fs = std::filesystem;

void ToldEnds::callback(const std::string& identifier, int status, void* self)
{
    auto* told = static_cast<ToldEnds*>(self);
    const std::lock_guard<std::mutex> lock(told->mutex_);
    told->ends_.emplace_back(identifier, status);
    told->changed_.notify_all();
}

std::vector<ToldEnds::End> ToldEnds::waitFor(std::size_t count)
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(90), [&] { return ends_.size() >= count; });
    EXPECT_EQ(ends_.size(), count) << "downloads that have ended";
    return ends_;
}

void DownloadFixture::SetUp()
{
    unsetenv("JOURNAL_STREAM");
    if (fs::exists(kConfiguration)) {
        GTEST_FAIL() << kConfiguration << " is there: this program may not replace it";
    }
    emptyDirectory();
}

void DownloadFixture::TearDown()
{
    if (!HasFatalFailure()) {
        fs::remove(kConfiguration);
        emptyDirectory();
    }
}

void DownloadFixture::emptyDirectory()
{
    for (const std::string& name : namesInDirectory()) {
        fs::remove_all(pathOf(name));
    }
}

void DownloadFixture::configure(const std::string& text)
{
    fs::create_directories(fs::path(kConfiguration).parent_path());
    writeFile(kConfiguration, text);
}

void DownloadFixture::configureFor(const std::string& address, const std::string& more)
{
    configure("address = " + address + "\nretry-pause = 0\nstall-timeout = 60\n" + more);
}

int DownloadFixture::download(const std::string& identifier)
{
    ToldEnds told;
    if (!appbinaryManager::ABM_DownloadAppBinary(&ToldEnds::callback, &told, identifier)) {
        return 1;
    }
    const std::vector<ToldEnds::End> ends = told.waitFor(1);
    if (ends.empty()) {
        // The worker may still call back into `told`.
        std::abort();
    }
    EXPECT_EQ(ends.front().first, identifier);
    return ends.front().second;
}

std::vector<std::string> DownloadFixture::namesInDirectory()
{
    std::vector<std::string> names;
    if (fs::is_directory(kDirectory)) {
        for (const auto& entry : fs::directory_iterator(kDirectory)) {
            if (entry.path().filename() != "emps") {
                names.push_back(entry.path().filename());
            }
        }
    }
    return names;
}

std::string DownloadFixture::packageOf(std::size_t size)
{
    std::minstd_rand generator(1);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(generator() >> 8);
    }
    return bytes;
}

void DownloadFixture::sendPackage(const HttpRequest& request, HttpConnection& connection,
                                  const std::string& package, const std::string& tag)
{
    const std::size_t offset = request.offset();
    const std::string size = std::to_string(package.size());
    if (offset == 0 || request.header("If-Range") != tag) {
        connection.send(httpHead("200 OK", {"Content-Length: " + size, "ETag: " + tag}) + package);
        return;
    }
    connection.send(httpHead("206 Partial Content",
                             {"Content-Length: " + std::to_string(package.size() - offset),
                              "Content-Range: bytes " + std::to_string(offset) + "-" +
                                  std::to_string(package.size() - 1) + "/" + size,
                              "ETag: " + tag}) +
                    package.substr(offset));
}

void DownloadFixture::sendBeginning(HttpConnection& connection, const std::string& package,
                                    std::size_t bytes, const std::string& tag)
{
    connection.send(
        httpHead("200 OK", {"Content-Length: " + std::to_string(package.size()), "ETag: " + tag}) +
        package.substr(0, bytes));
}
