/// Files as whole texts.
#pragma once

#include <string>

namespace quillon::test {

/// What a file holds, as far as it can be read; empty where there is none.
std::string readAll(const std::string& path);

/// Puts a file into the place of what is there; makes the directories above it. Throws
/// std::runtime_error with the path when it cannot be written.
void writeFile(const std::string& path, const std::string& text);

/// Puts an executable shell script into the place of what is there. Throws as writeFile().
void writeScript(const std::string& path, const std::string& script);

}  // namespace quillon::test
