#pragma once

#include <list>
#include <string>
#include <vector>

#include "fw-update-symbol.h"

/// One module as it is described to a client. Each text is cut to what fits, and terminated.
struct FWUpdateItem
{
    /// A null text counts as an empty one.
    FWUpdateItem(const char* libNameText, const char* versionText, const char* firmwareNameText);
    FWUpdateItem(const FWUpdateItem& other);
    FWUpdateItem& operator=(const FWUpdateItem& other) = default;

    char libName[FW_PLUGIN_TEXT_SIZE];
    char version[FW_PLUGIN_TEXT_SIZE];  ///< the one that is running
    char firmwareName[FW_PLUGIN_TEXT_SIZE];
};

/// The guard of one module's update: waits until nobody else on the device is updating under a
/// guard, then updates on a thread of its own and waits for the expected time and two seconds.
///
/// One wait, ended by any wake-up; a worker that ends before the wait begins is not seen, and
/// counts as late. A late worker is left alone: it works on a record and a text of its own, and
/// keeps the module's library open for as long as it runs.
/// @param seconds  expected time; seconds + 2 wraps at 32 bits
/// @param text     copied; may be null
/// @return the update's result; -1 also when the semaphore cannot be had or an exception ended the
///         update.
/// Raises std::runtime_error, "<firmware name> update timeout", when the time is over, and
/// std::system_error when no thread can be started. The semaphore is free again either way.
int update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds, CallerTypes caller,
                           char* text);

/// Updates a module on the calling thread, without a guard, and ignores the result.
void update_module(FWUpdateSymbol& module, CallerTypes caller, char* text);

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

    /// @name The control layer's interface
    /// The service itself calls none of it. One run at a time, and none beside a stick's estimate
    /// or run: nothing here locks the modules. A required plug-in entry that is not bound raises
    /// std::bad_function_call, unless a guard stands before it.
    /// @{

    /// Updates every module that the last check marked, from its package, one after another, each
    /// under the guard of update_timeout_wrapper. A failure or time-out never ends the run. The
    /// device's power is locked for the summed expected times and five seconds a module; at the end
    /// every plug-in is told, and the update list is deleted. A plug-in that raises an exception
    /// when it is told ends the run there: the list stays, and the lock ends by its time.
    /// @param caller  not used: the plug-ins are told CALLER_SERVICE
    /// @return 0, always.
    int doUpdateFirmwareAll(CallerTypes caller);

    /// Checks and updates every module with that library name, each under the guard; a process
    /// module is run without one. Takes no power lock.
    /// @param text  handed to the plug-in; may be null unless the caller is CALLER_ARGUMENT
    /// @return the last updated module's result; -1 when none was updated or the guard gave up
    ///         before there was one.
    int doUpdateFirmware(const std::string& name, CallerTypes caller, char* text);

    /// The functions of the same name below, for those who hold the registry.
    int update_timeout_wrapper(FWUpdateSymbol& module, unsigned int seconds, CallerTypes caller,
                               char* text);
    void update_module(FWUpdateSymbol& module, CallerTypes caller, char* text);

    /// Checks every module's package, and writes those that need an update into the update list
    /// "/tmp/fwupdate-off-list.txt": a line each, library name and package name.
    ///
    /// @param running  read before each module; once another thread has cleared it the pass ends
    /// @return number of lines; -1 (logged) when stopped or when the list's path is not safe. A
    ///         list that cannot be written is not reported.
    int writeFirmwareUpdateList(bool& running);

    /// Tells every module's plug-in that updating is over.
    /// @return 0, always.
    int allDoUpdateDone();

    /// Checks every module and appends those that need an update.
    /// @param text  as in doUpdateFirmware
    /// @return 0, always.
    int getUpdateFwItems(std::list<FWUpdateItem>& items, CallerTypes caller, char* text);

    /// Appends every module.
    /// @return 0, always.
    int getFwItems(std::list<FWUpdateItem>& items);

    /// Asks the first module with that library name for the version that is running.
    ///
    /// @param version       FW_PLUGIN_TEXT_SIZE bytes, for the plug-in to write to
    /// @param firmwareName  127 bytes at least; a name of that length or more is not terminated
    /// @return the plug-in's answer; -1 when no module has the name, and nothing is written then.
    int getFirmwareVersion(const std::string& name, char* version, char* firmwareName);

    /// Asks the first module with that library name how far its update is. May be called while
    /// another thread is updating.
    /// @return the plug-in's answer; -1 when no module has the name.
    int getFirmwareUpdateProgress(const std::string& name, unsigned int* progress);

    /// Asks the platform to download every module's package.
    /// @return 0, always.
    int downloadEMPAll();

    /// The modules in their order, those that did not load among them, for what the operations
    /// above do not tell. Valid until onDestroy.
    const std::vector<FWUpdateSymbol>& modules() const;
    std::vector<FWUpdateSymbol>& modules();
    /// @}

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
