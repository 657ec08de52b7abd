#ifndef QUILLON_FW_UPDATE_SYMBOL_MANAGER_H
#define QUILLON_FW_UPDATE_SYMBOL_MANAGER_H

#include <string>
#include <vector>

#include "fw-update-symbol.h"

/// The registry of the device's firmware modules, and the runs over them.
///
/// The modules are found once, at start-up, and every run visits them in the order in which the
/// module directory listed them. Thread: start-up by one thread; afterwards the list is only read.
/// An estimate may overlap a run, which then sees the estimate's marks.
class FWUpdateSymbolManager
{
public:
    /// The one instance, made on first use.
    static FWUpdateSymbolManager* getInstance();

    /// Runs the start-up pass unless one has succeeded.
    /// @param skip  passed on to onCreate
    /// @return true when the registry stands.
    bool getIsReady(bool skip);

    /// The start-up pass: makes a record of every ".so" file in the module directory, loads them
    /// all, and reads the software version.
    ///
    /// A module that does not load stays in the list; a missing version is only logged.
    /// @param skip  leave out modules whose name contains "EXT-" in any case
    /// @return false (logged) when the module directory cannot be read.
    bool onCreate(bool skip);

    /// Reads the platform's software version and keeps what stands before its last "-".
    /// @return 0, or -1 (logged) when there is none or it has no "-"; what was kept stays.
    int getSWVersionString();

    /// Asks every module whether its image on a stick is to be installed and how long that takes.
    ///
    /// @param key    the image key's text, as FWUpdateSymbol::getNeedUpdateList takes it
    /// @param path   the stick directory, ending in "/"
    /// @param total  always written: the summed seconds of the modules that need an update
    /// @return 0 when at least one module needs an update, else -1.
    int getFirmwareUpdateTime(const unsigned char* key, const char* path, int& total);

    /// Updates every module that the last estimate marked. A module that answers -1 ends the run; a
    /// plug-in's own code of another value does not, and as the last one it is the run's result.
    ///
    /// @param key   as in getFirmwareUpdateTime
    /// @param path  the stick directory, ending in "/"
    /// @return the last updated module's result; -1 when one answered so or none was marked.
    int doUpdateUSB(const unsigned char* key, const char* path);

    /// Empties the module list; each library is closed. The registry still counts as ready.
    /// @return true, always.
    bool onDestroy();

    FWUpdateSymbolManager(const FWUpdateSymbolManager&) = delete;
    FWUpdateSymbolManager& operator=(const FWUpdateSymbolManager&) = delete;

private:
    FWUpdateSymbolManager() = default;
    ~FWUpdateSymbolManager();

    bool isReady_ = false;
    std::vector<FWUpdateSymbol> modules_;
    std::string swVersion_;
};

#endif
