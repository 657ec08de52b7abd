#include "tools/quillonctl/modules/module-registry.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "src/support/paths.h"
#include "tools/quillonctl/modules/module-events.h"
#include "tools/shared/services-user.h"

extern "C" {
void* __real_dlopen(const char* file, int mode);

// The system keeps a library whose initialization has raised an exception, and opens it another
// time as if it were whole.
__attribute__((used)) void* __wrap_dlopen(const char* file, int mode)
{
    quillon::ModuleEvents& events = quillon::ModuleEvents::instance();
    if (!events.mayLoad(file)) {
        return nullptr;
    }
    void* library = nullptr;
    const std::string raised = quillon::raisedBy([&] { library = __real_dlopen(file, mode); });
    if (!raised.empty()) {
        events.loadingRaised(raised);
    }
    return library;
}
}

namespace quillon {

namespace {

using Text = std::array<char, FW_PLUGIN_TEXT_SIZE + 1>;

void loadTheRest(FWUpdateSymbolManager& manager)
{
    for (FWUpdateSymbol& module : manager.modules()) {
        const bool isRefused = ModuleEvents::instance().of(module.getLibName()).loading.result != 0;
        if (!isRefused && kindOf(module) == ModuleKind::kUnusable) {
            tell(ModuleEvent::kLoading, module);
            const int result = resultOf([&] { return module.loadSymbol(module.getLibName()); });
            tell(ModuleEvent::kLoaded, module, result);
        }
    }
}

}  // namespace

ModuleKind kindOf(const FWUpdateSymbol& module)
{
    if (module.getSymbolType() == 1) {
        return ModuleKind::kProcess;
    }
    return module.isLoaded() ? ModuleKind::kFirmware : ModuleKind::kUnusable;
}

void openRegistry(const std::string& only)
{
    ModuleEvents::instance();
    static_cast<void>(servicesUser());  // later a module may keep it from being looked up
    FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
    if (!only.empty() && access(paths::kModules, R_OK | X_OK) == 0) {
        std::error_code error;
        const std::filesystem::path file = only + ".so";
        if (!file.has_parent_path() && exists(symlink_status(paths::kModules / file, error))) {
            manager.modules().emplace_back(only);
            loadTheRest(manager);
        }
        return;
    }
    bool ready = false;
    if (!raisedBy([&] { ready = manager.getIsReady(false); }).empty()) {
        loadTheRest(manager);
    } else if (!ready) {
        throw Failure{kExitSystem,
                      std::string("the module directory cannot be read: ") + paths::kModules};
    }
}

ModuleProblem sharedNameOf(const FWUpdateSymbol& module)
{
    if (kindOf(module) != ModuleKind::kFirmware) {
        return {};
    }
    ModuleProblem problem;
    for (const FWUpdateSymbol& other : FWUpdateSymbolManager::getInstance()->modules()) {
        if (other.getLibName() == module.getLibName()) {
            continue;
        }
        if (other.getEMPName() == module.getEMPName()) {
            return {"same-identifier", "it has the package identifier of " + other.getLibName()};
        }
        if (other.getFirmwareName() == module.getFirmwareName()) {
            problem = {"same-name", "it has the firmware name of " + other.getLibName()};
        }
    }
    return problem;
}

std::string defectOf(const FWUpdateSymbol& module)
{
    return phraseOf(ModuleEvents::instance().of(module.getLibName()).loading);
}

std::optional<std::string> moduleThatLocksLoader()
{
    for (const FWUpdateSymbol& module : FWUpdateSymbolManager::getInstance()->modules()) {
        if (ModuleEvents::instance().of(module.getLibName()).locksLoader) {
            return module.getLibName();
        }
    }
    return std::nullopt;
}

std::optional<std::string> runningVersion(const FWUpdateSymbol& module)
{
    if (kindOf(module) == ModuleKind::kUnusable) {
        return std::nullopt;
    }
    Text version{};
    Text firmwareName{};
    int result = -1;
    ModuleEvents::instance().isAt(module.getLibName(), ModuleStep::kVersion);
    const std::string raised = raisedBy([&] {
        result = FWUpdateSymbolManager::getInstance()->getFirmwareVersion(
            module.getLibName(), version.data(), firmwareName.data());
    });
    ModuleEvents::instance().isAt("", ModuleStep::kNone);
    version.back() = '\0';
    if (!raised.empty() || result != 0) {
        return std::nullopt;
    }
    return version.data();
}

std::optional<unsigned int> updateProgress(const std::string& libName)
{
    unsigned int percent = 0;
    int result = -1;
    static_cast<void>(raisedBy([&] {
        result = FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(libName, &percent);
    }));
    return result == 0 ? std::make_optional(percent) : std::nullopt;
}

}  // namespace quillon
