#include "item-folder.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

void ItemFolder::SetUp()
{
    unsetenv("JOURNAL_STREAM");
    if (fs::exists(kFolder) && !fs::is_empty(kFolder)) {
        GTEST_FAIL() << kFolder << " holds items: run this program through quillon-device";
    }
    fs::remove(kFolder);
}

void ItemFolder::TearDown()
{
    if (!HasFatalFailure()) {
        fs::remove_all(kFolder);
    }
}

void ItemFolder::makeFolder()
{
    fs::create_directories(kFolder);
    fs::permissions(kFolder, fs::perms(0700));
}

void ItemFolder::writeFile(const std::string& path, const std::string& bytes, mode_t mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

std::string ItemFolder::readFile(const std::string& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

std::vector<std::string> ItemFolder::namesInFolder()
{
    std::vector<std::string> names;
    if (fs::is_directory(kFolder)) {
        for (const auto& entry : fs::directory_iterator(kFolder)) {
            names.push_back(entry.path().filename());
        }
    }
    return names;
}
