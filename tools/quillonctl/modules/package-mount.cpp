#include "tools/quillonctl/modules/package-mount.h"

#include <fstream>
#include <sstream>

#include "src/support/paths.h"

namespace quillon {

namespace {

bool isPackageMounted(const FWUpdateSymbol& module)
{
    // A package's name is letters and digits, so nothing of it is escaped in the table.
    const std::string mountPoint = paths::kMountedPackages + module.getEMPName();
    std::ifstream table(paths::kMountTable);
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string device;
        std::string directory;
        if (words >> device >> directory && directory == mountPoint) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool releasePackage(FWUpdateSymbol& module)
{
    return !isPackageMounted(module) || module.unmountEMPImage();
}

}  // namespace quillon
