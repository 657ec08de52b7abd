#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "base/handles.h"
#include "fw-update-plugin.h"
#include "support/shared-value.h"

/// Where a module's update is looked for.
enum UPDATE_TYPE : int32_t {
    UPDATE_USB = 0,   ///< a USB stick
    UPDATE_EMP = 1,   ///< the module's mounted extension module package
    UPDATE_EXT = 2,   ///< the read-only system firmware area
    UPDATE_SBOX = 3,  ///< the writable shared area
};

/// What a module's information file says about the image on offer.
struct FWInformation
{
    std::string reserved1;  ///< kept empty
    std::string version;
    std::string reserved2;              ///< kept empty
    std::uint32_t crc = 0;              ///< CRC-32 of the image
    std::uint32_t expectedSeconds = 0;  ///< expected duration of the update
};

/// Where a caller's update is looked for.
///
/// @param arg  read only for CALLER_ARGUMENT, and then not null: a null text is a programming
///             error and raises std::logic_error
UPDATE_TYPE CallerToUpdateType(CallerTypes caller, char* arg);

/// Asks the platform's signature verifier about a file. The verifier library is loaded on first
/// use and kept.
///
/// @param path  NUL-terminated
/// @return the verifier's answer, 0 meaning not signed; 1 (logged) when there is no verifier.
/// Thread: any.
int uep_verify(const char* path);

/// Deciphers (or enciphers) the rest of a stream with AES-256-CBC, all but its last 534 bytes.
///
/// @param fp      stands at the first byte of the cipher text
/// @param ckey    the first 32 bytes are the key, as they are
/// @param iv      16 bytes
/// @param enc     0 deciphers, 1 enciphers
/// @param count   bytes from the stream's position to its end
/// @param outlen  receives the number of output bytes; a wrong key only makes it shorter
/// @return a buffer of count bytes from calloc that is the caller's, or null when memory is short.
/// Thread: any. Source: NIST SP 800-38A (CBC), RFC 5652 (padding).
unsigned char* aes_256_cbc_all(std::FILE* fp, const unsigned char* ckey, const unsigned char* iv,
                               int enc, int count, int& outlen);

/// The output buffer of the latest aes_256_cbc_all, or null when that had no memory. Nothing reads
/// it.
extern unsigned char* cipher_buf_all;

/// One firmware module: its plug-in library, its names and paths, and its last update decision.
///
/// Copies share the plug-in library, which is closed after the last of them. Thread: one at a
/// time, but for getNeedUpdate, getExpectedUpdateTime, the names and getUpdateProgress, which any
/// thread may ask for while another one decides or updates.
class FWUpdateSymbol
{
public:
    /// A module that is not loaded yet.
    /// @param libName  name of its library, without directory and ".so"
    explicit FWUpdateSymbol(const std::string& libName);

    /// Opens "/usr/fwupdate/controls/<name>.so", binds its entries and takes the module's names
    /// from it. Meant to be called once.
    ///
    /// A library whose name contains "EXT-", in any case, becomes a process module: it has no
    /// package and counts as not loaded.
    /// @return 0, or -1: without a message when the name is empty or there is no such file, else
    ///         logged.
    int loadSymbol(const std::string& name);

    /// Asks the plug-in for its package identifier.
    /// @param out  receives what the plug-in said
    /// @return 0; -1 (logged) when it is empty or holds anything but ASCII letters and digits.
    int getEMPID(std::string& out);

    /// @name The plug-in's entries
    /// Each hands its arguments on and the plug-in's answer back. The first four raise
    /// std::bad_function_call when the entry is not bound.
    /// @{
    int setContext(CallerTypes caller, char* arg);
    /// Tells the plug-in that the service itself is asking, then asks.
    /// @param buffer  FW_PLUGIN_TEXT_SIZE bytes
    int getActiveVersion(char* buffer);
    int checkVersion(const char* version, int* need);
    /// @param extra  accepted and not passed on
    int doUpdate(const char* path, unsigned long value, unsigned int extra);
    /// @return -1 when the plug-in has no such entry.
    int allUpdateDone();
    /// @return -1 when the module is not loaded or the plug-in has no such entry.
    int doUpdate_decryption(const unsigned char* data, int length);
    /// @return -1 when the module is not loaded or the plug-in has no such entry.
    int getExpectedTime(int* seconds);
    /// @return -1 when the plug-in has no such entry.
    int getUpdateProgress(unsigned int* progress);
    /// @}

    /// Whether the module is ready for updates from images. A process module is not.
    bool isLoaded() const;
    bool getNeedUpdate() const;
    /// In seconds.
    int getExpectedUpdateTime() const;
    /// 0: firmware module, 1: process module.
    int getSymbolType() const;
    std::string getFirmwareName() const;
    std::string getEMPName() const;
    std::string getLibName() const;
    /// The path of the module's image on a stick.
    std::string imageOn(const char* stick) const;
    /// What loadInformation read last.
    const FWInformation& getInformation() const;

    /// Finds the directory of the first USB stick that is present: "/opt/media/USBDriveA/", else
    /// "/opt/media/USBDriveA1/" to "/opt/media/USBDriveA10/".
    /// @param out  the directory, ending in "/"; untouched when none is present
    bool getUsbMountPath(std::string& out);

    /// Path of the module's information file.
    /// @return empty (logged) when a stick is asked for and none is present.
    std::string getInformationPath(UPDATE_TYPE type);

    /// Path of the module's image.
    /// @return empty (logged) when a stick is asked for and none is present.
    std::string getBinaryPath(UPDATE_TYPE type);

    /// Reads an information file: a JSON object with "version" (text, "0000" when absent), "crc"
    /// (0) and "expected_time" (seconds, 300).
    ///
    /// @return true when all three were taken; false (logged) otherwise, where those read before
    ///         the failing one are kept. A "version" that is an array or an object raises
    ///         Json::Exception.
    bool loadInformation(const std::string& path);

    /// CRC-32 of a file, with the polynomial of firmware images (support/checksum.h).
    /// @return 0 as well when the file is empty or cannot be opened (logged).
    unsigned long getBinaryCRC32(const std::string& path);

    /// Whether anything is at the path.
    bool file_exists(const std::string& path);

    /// Whether the module is loaded and its package has been downloaded.
    bool getIMGExists();

    /// Asks the platform to download the module's package. Its arrival shows in getIMGExists.
    /// @return true when the request was accepted; false when the module is not loaded or the
    ///         platform refused (logged).
    bool downloadEMP();

    /// Mounts the module's package read-only in "/opt/usr/apps/appbinarymanager/emps/"; one that is
    /// mounted already is unmounted first.
    /// @return false (logged) when the module is not loaded, there is no package, or the mount
    ///         failed. Raises boost::filesystem::filesystem_error as loop_mount does.
    bool mountEMPImage();

    /// Unmounts the module's package.
    /// @return false (logged) as well when it was not mounted.
    bool unmountEMPImage();

    /// Checks the image that the caller's source offers, asks the plug-in whether it is to be
    /// installed, and keeps the answer and the expected duration. A package stays mounted.
    ///
    /// @param arg  the caller's text; may be null unless the caller is CALLER_ARGUMENT
    /// @return the plug-in's need value (1: needed); -1 (logged) when there is no sound image.
    ///         Then, and when an exception leaves, the last answer stays.
    /// Raises std::bad_function_call when a required entry is not bound, and what loadInformation
    /// and mountEMPImage raise.
    int isNeedUpdate(CallerTypes caller, char* arg);

    /// Installs the image that the caller's source offers, on the calling thread, which takes the
    /// firmware's name. Waits while another module of this process is being installed. A package is
    /// deleted once it is installed; one that is not needed is only unmounted, and one that failed
    /// stays mounted.
    ///
    /// @param arg  as in isNeedUpdate
    /// @return 0 when installed or not needed; the plug-in's own code when it failed; -1 when the
    ///         module is not loaded, its context is refused (both silent), there is no sound image
    ///         or the plug-in fails the check (logged). Raises what isNeedUpdate raises.
    int updateFirmware(CallerTypes caller, char* arg);

    /// Runs a process module's update, which has no image. The calling thread takes the firmware's
    /// name. Waits while another process module of this process is running.
    ///
    /// @return 0; -1 when the plug-in refuses its context (silent) or fails (logged). Raises
    ///         std::bad_function_call when a required entry is not bound.
    int runProcess(CallerTypes caller, char* arg);

    /// Asks the plug-in whether the image on a stick is to be installed, and keeps the answer and
    /// the expected duration.
    ///
    /// @param ckey  text of the image key; its first 32 characters are the AES key
    /// @param path  the stick directory, ending in "/"
    /// @return the plug-in's need value (1: needed); 0 (logged) when it cannot tell the duration;
    ///         -1 (logged) when the image is not there, not signed or unreadable, or there is no
    ///         plug-in.
    int getNeedUpdateList(const unsigned char* ckey, const char* path);

    /// Installs the module's image from a stick.
    ///
    /// @param ckey  as in getNeedUpdateList
    /// @param path  the stick directory, ending in "/"
    /// @return 0 when installed; the plug-in's own code when it failed; -1 (logged) as in
    ///         getNeedUpdateList, and when no update is needed.
    int updateUSB(const unsigned char* ckey, const char* path);

private:
    /// Forgets the plug-in's entries; the module counts as not loaded.
    void unbind();
    /// Where the module's package is mounted.
    std::string mountPoint() const;

    bool isLoaded_ = false;
    quillon::SharedValue<bool> needUpdate_{false};
    quillon::SharedValue<int> expectedTime_{0};
    // Before the entries: they are destroyed first, while their library is still open.
    quillon::SharedLibrary library_;
    // Never null. Copies share the text, which plug-ins may have kept.
    std::shared_ptr<const std::string> libName_;
    std::string empName_;
    std::string firmwareName_;
    std::string imagePath_;
    std::function<void()> spare_[3];  // room for more entries; never set
    FWInformation information_;

    std::function<decltype(::setContext)> setContext_;
    std::function<decltype(::getEMPID)> getEMPID_;
    std::function<decltype(::getActiveVersion)> getActiveVersion_;
    std::function<decltype(::checkVersion)> checkVersion_;
    std::function<decltype(::doUpdate)> doUpdate_;
    std::function<decltype(::allUpdateDone)> allUpdateDone_;
    std::function<decltype(::doUpdate_decryption)> doUpdate_decryption_;
    std::function<decltype(::getExpectedTime)> getExpectedTime_;
    std::function<decltype(::getUpdateProgress)> getUpdateProgress_;

    int symbolType_ = 0;
};
