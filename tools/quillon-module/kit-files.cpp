#include "tools/quillon-module/kit-files.h"

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tools/quillon-module/exit-codes.h"

namespace quillon::kit {

namespace fs = std::filesystem;

fs::path installedFile(const std::string& what, const std::string& place)
{
    const fs::path program = fs::read_symlink("/proc/self/exe");
    fs::path file = program.parent_path().parent_path() / place;
    if (!fs::exists(file)) {
        throw Failure(kExitFile, what + " is not in " + file.parent_path().string() +
                                     ": install the development kit (quillon-dev)");
    }
    return file;
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

NewDirectory::NewDirectory(const std::string& place)
    : place_(fs::path(place).has_filename() ? fs::path(place) : fs::path(place).parent_path()),
      path_(place_.parent_path() / ("." + place_.filename().string() + "-XXXXXX"))
{
    if (fs::exists(fs::symlink_status(place_))) {
        throw Failure(kExitFile,
                      place_.string() + " exists already: choose another name, or remove it");
    }
    if (mkdtemp(path_.data()) == nullptr) {
        throw Failure(kExitFile,
                      "no directory can be made " +
                          (place_.has_parent_path() ? "in " + place_.parent_path().string()
                                                    : std::string("here")) +
                          ": " + std::strerror(errno));
    }
    fs::permissions(path_, fs::perms(0755));
}

NewDirectory::~NewDirectory()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void NewDirectory::moveInPlace() const
{
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, place_.c_str(), RENAME_NOREPLACE) != 0) {
        throw Failure(kExitFile, place_.string() + " cannot be made: " + std::strerror(errno));
    }
}

}  // namespace quillon::kit
