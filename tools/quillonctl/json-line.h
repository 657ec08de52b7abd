#ifndef QUILLON_TOOLS_QUILLONCTL_JSON_LINE_H
#define QUILLON_TOOLS_QUILLONCTL_JSON_LINE_H

#include <json/value.h>

namespace quillon {

/// What every line of `--json` is made of: an object whose member "event" names it.

/// @return an object with that one member. Throws std::bad_alloc.
Json::Value eventObject(const char* name);

/// Writes the object as one line on standard output, flushed, so that a reader sees it at once.
/// Thread: one at a time.
void writeJsonLine(const Json::Value& object);

}  // namespace quillon

#endif
