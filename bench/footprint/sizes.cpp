#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

#include "footprint/measure.h"
#include "process/started-process.h"

namespace fs = std::filesystem;

namespace quillon::bench {
namespace {

constexpr const char* kFiles[] = {
    "bin/quillon-service", "bench/do-nothing",       "lib/libquillon-platform.so.0",
    "lib/libkUEPUser.so",  "bin/quillon-privileged", "bin/quillon-storage",
    "bin/quillon-unit",    "bin/quillonctl",         "bin/quillon-image",
    "bin/quillon-device"};

class TemporaryFolder
{
public:
    TemporaryFolder() : path_((fs::temp_directory_path() / "quillon-footprint-XXXXXX").string())
    {
        if (mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error(path_ + " cannot be made");
        }
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

Json::Value strippedSizes(const std::string& buildFolder)
{
    const TemporaryFolder folder;
    const std::string stripped = folder.path() + "/stripped";
    Json::Value sizes(Json::arrayValue);
    for (const char* file : kFiles) {
        const fs::path path = fs::path(buildFolder) / file;
        if (!fs::exists(path)) {
            continue;
        }
        outputOf({"strip", "--strip-unneeded", "--remove-section=.comment",
                  "--remove-section=.note", "-o", stripped, path.string()});
        Json::Value size;
        size["file"] = path.filename().string();
        size["bytes"] = Json::Value::UInt64{fs::file_size(stripped)};
        sizes.append(size);
    }
    return sizes;
}

}  // namespace quillon::bench
