#include "device-program.h"
#include "support/files.h"
#include "support/wait.h"

#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace quillon::test {

std::string deviceProgram()
{
    return QUILLON_DEVICE_PROGRAM;
}

Result runDevice(const Words& arguments)
{
    Words words = {deviceProgram()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run(words);
}

Result runScript(const std::string& script, const Words& options)
{
    Words words = {"run"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", "sh", "-c", script});
    return runDevice(words);
}

bool hasPrivateDevice(const std::string& way)
{
    const std::string info = runDevice({"info"}).out;
    const bool root = info.find("root:      yes") != std::string::npos;
    const bool user = info.find("user:      yes") != std::string::npos;
    if (way == "root") {
        return root;
    }
    return way == "user" ? user : root || user;
}

int processesWith(const std::string& word)
{
    int count = 0;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", ignored)) {
        count += readAll(entry.path() / "cmdline").find(word) != std::string::npos ? 1 : 0;
    }
    return count;
}

bool vanish(const std::string& word)
{
    return eventually([&] { return processesWith(word) == 0; });
}

std::string uniqueWord()
{
    return "quillon-device-test-" + std::to_string(::getpid());
}

}  // namespace quillon::test
