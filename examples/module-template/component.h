#ifndef COMPONENT_H
#define COMPONENT_H

#include <cstddef>

/// Where the two files lie that stand for the component: the service may write there.
#ifndef COMPONENT_DIRECTORY
#define COMPONENT_DIRECTORY "/var/lib/quillon/modules/lamp"
#endif

namespace component {

/// The largest firmware that the component has room for, in bytes.
constexpr std::size_t kLargestFirmware = 1048576;

/// Reads the version that the component runs.
/// @param text  receives it, NUL-terminated; "0" before the first update
/// @param size  of text in bytes, at least 2
void readVersion(char* text, std::size_t size);

/// Replaces the firmware, and then the version.
/// @return false with errno telling why.
bool install(const unsigned char* firmware, std::size_t length, const char* version);

/// Thread: any, also while install runs.
/// @return how much of the running or latest install is done, 0 to 100.
unsigned int progress();

}  // namespace component

#endif
