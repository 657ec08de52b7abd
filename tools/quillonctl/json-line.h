#pragma once

#include <json/value.h>

#include <map>
#include <string>

namespace quillon {

/// The members of an object. Those whose value is null are left out.
using JsonMembers = std::map<std::string, Json::Value>;

/// Throws std::bad_alloc.
Json::Value jsonObject(const JsonMembers& members);

/// Writes a line of `--json` on standard output, flushed, so that a reader sees it at once.
/// @param event    what the line's member "event" says
/// @param members  the line's others
/// Thread: one at a time. Throws std::bad_alloc.
void writeEvent(const char* event, const JsonMembers& members = {});

}  // namespace quillon
