#pragma once

#include <sys/stat.h>

#include <string>

#include "base/fd.h"

namespace Json {
class Value;
}

/// Files with a JSON object a line, to which the service adds. Thread: any.
namespace quillon {

/// @return the object on one line, with the line's end. Throws std::exception.
std::string lineOf(const Json::Value& object);

/// Opens a file to add to it. It should be closed before a module is called: one that closes a
/// descriptor twice must not have a line written into a file of its own.
/// @param flags        O_WRONLY or O_RDWR, and more for open
/// @param[out] opened  what the file is; undefined if not opened
/// @return none for what is not there, no regular file, or a link. Never throws.
UniqueFd openForLines(const std::string& path, int flags, struct stat& opened);

}  // namespace quillon
