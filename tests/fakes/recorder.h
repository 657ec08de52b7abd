#pragma once

#include <string>

#include "fakes/recording-platform.h"

namespace quillon::fakes {

/// Appends an entry to the timeline, with the number of the calling thread. errno stays.
void record(Entry entry);

/// Appends a Call.
void recordCall(const std::string& text);

/// The text in double quotes, with "\0", "\n", "\"" and "\\" written out; `null` for a null text.
std::string quoted(const char* text);
std::string quoted(const char* text, std::size_t size);

}  // namespace quillon::fakes
