#ifndef QUILLON_PLATFORM_APP_BINARY_MANAGER_H
#define QUILLON_PLATFORM_APP_BINARY_MANAGER_H

#include <string>

namespace appbinaryManager {

/// Asks the application-binary manager to download a package.
///
/// The download goes on after the call; the package then lies in the manager's folder under its
/// identifier with the suffix ".img".
/// @param callback    called once when the download has ended, on a thread of the manager; may be
///                    null
/// @param user_data   passed to the callback unchanged
/// @param identifier  name of the package
/// @return true when the request was accepted. Thread: any.
bool ABM_DownloadAppBinary(void (*callback)(const std::string& identifier, int status,
                                            void* user_data),
                           void* user_data, const std::string& identifier);

}  // namespace appbinaryManager

#endif
