/// What the verbs read of the kit, and what they make.
#pragma once

#include <filesystem>
#include <string>

namespace quillon::kit {

/// A file of the development kit: beside the program where it is installed, and where it was built.
/// @param what   for people: "the template"
/// @param place  seen from the directory above the program's
/// Throws Failure when it is not there.
std::filesystem::path installedFile(const std::string& what, const std::string& place);

/// Reads a whole file. Throws Failure.
std::string readFile(const std::filesystem::path& path);

/// Throws Failure.
void writeFile(const std::filesystem::path& path, const std::string& text);

/// A directory that appears whole or not at all: until it is moved in place, it is beside its
/// place, and gone with this object.
class NewDirectory
{
public:
    /// Throws Failure, also where something is in its place already.
    explicit NewDirectory(const std::string& place);
    ~NewDirectory();
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;

    /// Where it is until then.
    const std::string& path() const { return path_; }

    /// Throws Failure.
    void moveInPlace() const;

private:
    std::filesystem::path place_;
    std::string path_;
};

}  // namespace quillon::kit
