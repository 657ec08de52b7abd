#include "item-directory.h"
#include "support/files.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

void ItemDirectory::SetUp()
{
    unsetenv("JOURNAL_STREAM");
    if (fs::exists(kDirectory) && !fs::is_empty(kDirectory)) {
        GTEST_FAIL() << kDirectory << " holds items: run this program through quillon-device";
    }
    fs::remove(kDirectory);
}

void ItemDirectory::TearDown()
{
    if (!HasFatalFailure()) {
        fs::remove_all(kDirectory);
    }
}

void ItemDirectory::makeDirectory()
{
    fs::create_directories(kDirectory);
    fs::permissions(kDirectory, fs::perms(0700));
}

void ItemDirectory::writeFile(const std::string& path, const std::string& bytes, mode_t mode)
{
    quillon::test::writeFile(path, bytes);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

std::vector<std::string> ItemDirectory::namesInDirectory()
{
    std::vector<std::string> names;
    if (fs::is_directory(kDirectory)) {
        for (const auto& entry : fs::directory_iterator(kDirectory)) {
            names.push_back(entry.path().filename());
        }
    }
    return names;
}
