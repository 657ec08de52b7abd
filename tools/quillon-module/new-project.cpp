#include "tools/quillon-module/new-project.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "base/alphanumeric.h"
#include "src/support/checksum.h"
#include "tools/quillon-module/exit-codes.h"
#include "tools/shared/outside-text.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

/// The name that the template has.
constexpr char kTemplateName[] = "lamp";
constexpr std::size_t kLongestName = 60;

void requireName(const std::string& name)
{
    const bool isLetterFirst = !name.empty() && (name[0] < '0' || name[0] > '9');
    if (!isAlphanumeric(name) || !isLetterFirst || name.size() > kLongestName) {
        throw Failure(kExitUsage, "no name for a module: \"" + cut(printable(name), kLongestName) +
                                      "\": take 1 to 60 letters and digits, a letter first");
    }
    if (name.find("emp") != std::string::npos) {
        throw Failure(kExitUsage, "no name for a module: \"" + name +
                                      "\": it contains \"emp\", which the "
                                      "identifier has once: choose a name without it");
    }
}

/// Beside the program where it is installed, and where it was built.
fs::path templateDirectory()
{
    const fs::path program = fs::read_symlink("/proc/self/exe");
    fs::path directory = program.parent_path().parent_path() / "share/quillon/module-template";
    if (!fs::exists(directory / "CMakeLists.txt")) {
        throw Failure(kExitFile, "the template is not in " + directory.string() +
                                     ": install the development kit (quillon-dev)");
    }
    return directory;
}

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string readFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.is_open() || file.bad()) {
        throw Failure(kExitFile, path.string() + " cannot be read");
    }
    return text;
}

void writeFile(const fs::path& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    if (!file.write(text.data(), static_cast<std::streamsize>(text.size())).flush()) {
        throw Failure(kExitFile, path.string() + " cannot be written: " + std::strerror(errno));
    }
}

std::string checksumOf(const std::string& text)
{
    return std::to_string(
        imageChecksum(0, reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

void copyRenamed(const fs::path& from, const fs::path& to, const std::string& name)
{
    const std::string payload = readFile(from / "package" / (std::string(kTemplateName) + ".bin"));
    const std::string crc = checksumOf(payload);
    const std::string newCrc = checksumOf(replaced(payload, kTemplateName, name));
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(from)) {
        const std::string relative = fs::relative(entry.path(), from);
        const fs::path target = to / replaced(relative, kTemplateName, name);
        if (entry.is_directory()) {
            fs::create_directory(target);
            continue;
        }
        const std::string text = replaced(readFile(entry.path()), kTemplateName, name);
        writeFile(target,
                  entry.path().filename() == "info.json" ? replaced(text, crc, newCrc) : text);
    }
}

/// A directory beside the project's place, which is gone when it was not moved there.
class NewDirectory
{
public:
    explicit NewDirectory(const std::string& name) : path_("." + name + "-XXXXXX")
    {
        if (mkdtemp(path_.data()) == nullptr) {
            throw Failure(kExitFile,
                          std::string("no directory can be made here: ") + std::strerror(errno));
        }
        fs::permissions(path_, fs::perms(0755));
    }
    ~NewDirectory()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;

    const std::string& path() const { return path_; }

    void moveTo(const std::string& name) const
    {
        if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) != 0) {
            throw Failure(kExitFile, name + " cannot be made: " + std::strerror(errno));
        }
    }

private:
    std::string path_;
};

}  // namespace

void makeProject(const std::string& name)
{
    requireName(name);
    if (fs::exists(fs::symlink_status(name))) {
        throw Failure(kExitFile, name + " exists already: choose another name, or remove it");
    }
    try {
        const fs::path from = templateDirectory();
        const NewDirectory directory(name);
        copyRenamed(from, directory.path(), name);
        directory.moveTo(name);
    } catch (const fs::filesystem_error& error) {
        throw Failure(kExitFile, error.what());
    }
}

}  // namespace quillon::kit
