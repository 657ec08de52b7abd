#pragma once

/// Where things are on the device. All of them are fixed: there is no configuration file.
/// Directories end in "/", since names are appended to them as they are; the numbered stick's does
/// not, since its number follows.
namespace quillon::paths {

inline constexpr const char* kLabellingReady = "/tmp/smack_early_ready";
inline constexpr const char* kLifeMarker = "/tmp/fw_update_ready_usb";
inline constexpr const char* kReadyEvent = "/tmp/.fw_service_ready_usb";
inline constexpr const char* kIgnoreResumeEvent = "/tmp/.ignore_resume";
inline constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";

inline constexpr const char* kRunRecords = "/run/quillon/run/";
inline constexpr const char* kLayerRecords = "/run/quillon/run/modules/";
inline constexpr const char* kRunHistory = "/var/lib/quillon/history/";
inline constexpr const char* kLayerHistory = "/var/lib/quillon/history/modules/";

inline constexpr const char* kProvisioningPackage = "/usr/share/sdp/quillon-key/00000066.bin";
inline constexpr const char* kVerifierLibrary = "/usr/lib/libkUEPUser.so";

inline constexpr const char* kModules = "/usr/fwupdate/controls/";
inline constexpr const char* kQuarantine = "/usr/fwupdate/quarantine/";
inline constexpr const char* kUsbStick = "/opt/media/USBDriveA/";
inline constexpr const char* kNumberedUsbStick = "/opt/media/USBDriveA";
inline constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/";
inline constexpr const char* kMountedPackages = "/opt/usr/apps/appbinarymanager/emps/";
inline constexpr const char* kSystemFirmware = "/lib/firmware/ext/";
inline constexpr const char* kSharedFirmware = "/opt/usr/share/sbox/";

inline constexpr const char* kMountTable = "/proc/mounts";
inline constexpr const char* kDevices = "/dev";

}  // namespace quillon::paths
