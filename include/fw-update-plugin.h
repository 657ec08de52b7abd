/// The contract between the service and a firmware module.
///
/// A firmware module is a shared library in "/usr/fwupdate/controls/". Its file name without ".so"
/// is the module's library name. The service opens it once at start-up with RTLD_NOW and binds the
/// entries below by their unmangled names. A library whose name contains "EXT-", in any case, is
/// not a firmware module for the service and is skipped.
///
/// Two firmware modules are not updated at once by one process, nor are two process modules; a
/// firmware module and a process module may be. An update that has overrun its time is left
/// running. Every entry may therefore come from another thread while an update entry is still
/// running, so a module guards the state that they share. A control layer calls the same entries in
/// a process of its own. Between a check and an update the package is mounted anew: a module keeps
/// no file of it open in between.
///
/// Compiles as C11 and as C++17.
#ifndef FW_UPDATE_PLUGIN_H
#define FW_UPDATE_PLUGIN_H

#include <stdint.h>

/// Who asked for an update or a query. Passed unchanged to setContext.
#ifdef __cplusplus
enum CallerTypes : int32_t
#else
typedef int32_t CallerTypes;
enum
#endif
{
    CALLER_STICK = 0,      ///< an update from a USB stick
    CALLER_ARGUMENT = 1,   ///< a USB stick when the argument is "USB", else the module's package
    CALLER_SERVICE = 2,    ///< the service itself
    CALLER_USB_IMAGE = 3,  ///< the service, working on an enciphered image from a USB stick
    CALLER_SYSTEM = 4,     ///< an update from the read-only system firmware area
    CALLER_SHARED = 5,     ///< an update from the writable shared area
    CALLER_SYSTEM_2 = 6,   ///< as CALLER_SYSTEM
    CALLER_SYSTEM_3 = 7    ///< as CALLER_SYSTEM
};

/// Most bytes that getEMPID and getActiveVersion may write, the terminator included.
#define FW_PLUGIN_TEXT_SIZE 128

/// Size in bytes of the version header in front of an enciphered image's payload.
#define FW_PLUGIN_HEADER_SIZE 64

#ifdef __cplusplus
extern "C" {
#endif

/* Required entries. A library that lacks one of them is not loaded. */

/// Says for whom the following calls are made. Called before anything else, and again before each
/// getActiveVersion, before the checkVersion that begins a piece of work, and before doUpdate.
/// @param libraryName  the module's library name; valid as long as the library is loaded
/// @param argument     the caller's argument text, often empty, may be null; not to be changed. An
///                     empty one is valid as long as the library is loaded, any other until the
///                     caller's query or update has ended
/// @return 0 on success.
int setContext(const char* libraryName, CallerTypes caller, char* argument);

/// Writes the identifier of the module's package, ASCII letters and digits only, containing "emp".
/// The identifier without its first "emp" is the module's firmware name: the name of its image.
/// @param buffer  FW_PLUGIN_TEXT_SIZE zero bytes
/// @return 0 on success; the service looks only at the text.
int getEMPID(char* buffer);

/// Writes the version that the device is running, NUL-terminated.
/// @param buffer  FW_PLUGIN_TEXT_SIZE bytes
/// @return 0 on success.
int getActiveVersion(char* buffer);

/// Tells whether an offered version is to be installed.
/// @param version  the offered version, NUL-terminated
/// @param need     receives 1 when it is to be installed, 0 when not
/// @return 0 on success; anything else fails an update. A mere check of a package then goes by need
///         nevertheless.
int checkVersion(const char* version, int* need);

/// Installs the image at a path.
/// @param path   the image file; for a process module the library name; valid during the call only
/// @param value  the image's expected CRC-32; 0 for a process module
/// @return 0 on success, else the module's own code, which is handed back to the caller. Of a
///         process module only the log tells: its caller gets -1.
int doUpdate(const char* path, unsigned long value);

/* Optional entries. A library may leave any of them out. */

/// Called for every module when a run over all modules is over, or a control layer is done; not
/// after an update from a USB stick or of one module. An update that overran its time may still be
/// running.
/// @return 0 on success; ignored.
int allUpdateDone(void);

/// Installs a deciphered image from a USB stick. Without this entry the module cannot be updated
/// from a stick.
/// @param data    the payload after the version header; valid during the call only
/// @param length  its length in bytes, 0 or more
/// @return 0 on success, else the module's own code.
int doUpdate_decryption(const unsigned char* data, int length);

/// Tells how long an update takes. Without this entry an estimate never marks the module
/// for an update from a stick.
/// @param seconds  receives the estimate in seconds
/// @return 0 on success.
int getExpectedTime(int* seconds);

/// Tells how far a running update has come.
/// @param progress  receives the progress, by convention a percentage
/// @return 0 on success.
int getUpdateProgress(unsigned int* progress);

#ifdef __cplusplus
}
#endif

#endif
