#include "tools/quillon-module/new-project.h"

#include <filesystem>

#include "base/alphanumeric.h"
#include "src/support/checksum.h"
#include "tools/quillon-module/exit-codes.h"
#include "tools/quillon-module/kit-files.h"
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

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
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

}  // namespace

void makeProject(const std::string& name)
{
    requireName(name);
    try {
        const NewDirectory directory(name);
        const fs::path list =
            installedFile("the template", "share/quillon/module-template/CMakeLists.txt");
        copyRenamed(list.parent_path(), directory.path(), name);
        directory.moveInPlace();
    } catch (const fs::filesystem_error& error) {
        throw Failure(kExitFile, error.what());
    }
}

}  // namespace quillon::kit
