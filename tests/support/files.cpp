#include "support/files.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace quillon::test {

std::string readAll(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();  // no exception for what goes away meanwhile, a process or a loop device
    return text.str();
}

void writeFile(const std::string& path, const std::string& text)
{
    if (const fs::path directory = fs::path(path).parent_path(); !directory.empty()) {
        fs::create_directories(directory);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

void writeScript(const std::string& path, const std::string& script)
{
    writeFile(path, "#!/bin/sh\n" + script + "\n");
    fs::permissions(path, fs::perms(0755));
}

}  // namespace quillon::test
