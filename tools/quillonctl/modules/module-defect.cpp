#include "tools/quillonctl/modules/module-defect.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <exception>
#include <memory>

#include "base/handles.h"
#include "fw-update-plugin.h"
#include "src/support/paths.h"

namespace quillon {

namespace {

constexpr std::array<const char*, 5> kRequiredEntries = {
    "setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate"};

template <typename Entry>
Entry* entryOf(void* library, const char* name)
{
    return reinterpret_cast<Entry*>(dlsym(library, name));
}

bool isLetterOrDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string identifierOf(void* library, const std::string& libName)
{
    char noArgument[] = "";
    std::array<char, FW_PLUGIN_TEXT_SIZE + 1> buffer{};
    entryOf<decltype(::setContext)>(library, "setContext")(libName.c_str(), CALLER_SERVICE,
                                                           noArgument);
    entryOf<decltype(::getEMPID)>(library, "getEMPID")(buffer.data());
    buffer.back() = '\0';
    return buffer.data();
}

std::string defectOfIdentifier(const std::string& identifier)
{
    if (identifier.empty()) {
        return "its package identifier is empty";
    }
    if (!std::all_of(identifier.begin(), identifier.end(), isLetterOrDigit)) {
        return "its package identifier has other characters than ASCII letters and digits: " +
               identifier;
    }
    if (identifier.find("emp") == std::string::npos) {
        return "its package identifier does not contain \"emp\": " + identifier;
    }
    return "the log says why";
}

}  // namespace

std::string defectOf(const std::string& libName)
{
    if (libName.empty()) {
        return "its file has no name";
    }
    const std::string path = paths::kModules + libName + ".so";
    const std::unique_ptr<void, LibraryCloser> library(dlopen(path.c_str(), RTLD_NOW));
    if (!library) {
        return std::string("it does not load: ") + dlerror();
    }
    for (const char* name : kRequiredEntries) {
        if (dlsym(library.get(), name) == nullptr) {
            return std::string("it has no entry ") + name;
        }
    }
    try {
        return defectOfIdentifier(identifierOf(library.get(), libName));
    } catch (const std::exception& error) {
        return std::string("its plug-in raises an exception: ") + error.what();
    } catch (...) {
        return "its plug-in raises an exception";
    }
}

}  // namespace quillon
