#pragma once

#include <string>

/// The one entry of libquillon-download.so: ABM_DownloadAppBinary as it is on a stock Linux.
///
/// The library is apart, since it brings libcurl and thirty libraries more into the process. The
/// platform library opens it when the first package is asked for.
extern "C" bool quillon_download_package(void (*callback)(const std::string& identifier, int status,
                                                          void* user_data),
                                         void* user_data, const std::string& identifier);
