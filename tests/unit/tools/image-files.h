#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/verifier/image-error.h"
#include "support/process.h"
#include "unit/verifier/test-keys.h"

namespace quillon::test {

/// A directory of files that a test makes images in, and the means to run programs on them.
class ImageFiles : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "image-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = pattern + "/";
    }

    void TearDown() override { std::filesystem::remove_all(directory); }

    /// Runs a shell command; what it writes goes to `out` and `err`.
    /// @return its exit code, or minus the signal that ended it.
    int shell(const std::string& command)
    {
        Result result = runInShell(command);
        out = std::move(result.out);
        err = std::move(result.err);
        return result.status;
    }

    std::string take(const std::string& name)
    {
        std::string content = readAll(directory + name);
        std::filesystem::remove(directory + name);
        return content;
    }

    /// Of the files, in order.
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            found.push_back(entry.path().filename().string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    static unsigned modeOf(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    }

    std::string directory;  ///< ends in "/"
    std::string out;
    std::string err;
};

/// The class of fault that work ends with; fails the test when it ends well.
template <typename Work>
ImageFault faultOf(Work work, std::string* line = nullptr)
{
    try {
        work();
    } catch (const ImageError& error) {
        if (line != nullptr) {
            *line = error.what();
        }
        return error.fault();
    }
    ADD_FAILURE() << "no fault";
    return ImageFault{};
}

}  // namespace quillon::test
