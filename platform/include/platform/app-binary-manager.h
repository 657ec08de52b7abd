#ifndef QUILLON_PLATFORM_APP_BINARY_MANAGER_H
#define QUILLON_PLATFORM_APP_BINARY_MANAGER_H

#include <string>

namespace appbinaryManager {

/// Asks the application-binary manager to download a package.
///
/// The download goes on after the call; the package then lies in the manager's directory under its
/// identifier with the suffix ".img".
/// @param callback    called once when the download has ended, on a thread of the manager, but not
///                    any more when the process ends first; may be null. It should not throw. Its
///                    status is 0 when the package is there, otherwise negative. On a stock Linux:
///                    -1 the manager failed, -2 every attempt broke off (the next request goes on
///                    where it ended), -3 refused or not to be trusted, -4 larger than allowed,
///                    -5 not to be stored, -6 another process of this user is downloading it
/// @param user_data   passed to the callback unchanged
/// @param identifier  name of the package; on a stock Linux 1 to 127 letters and digits
/// @return true when the request was accepted. Thread: any, the callback's too.
bool ABM_DownloadAppBinary(void (*callback)(const std::string& identifier, int status,
                                            void* user_data),
                           void* user_data, const std::string& identifier);

}  // namespace appbinaryManager

#endif
