#ifndef QUILLON_BENCH_PROCESS_TEXT_FILE_H
#define QUILLON_BENCH_PROCESS_TEXT_FILE_H

#include <string>

namespace quillon::bench {

/// @throws std::runtime_error when it cannot be read
std::string readFile(const std::string& path);

/// @throws std::runtime_error when it cannot be written
void writeFile(const std::string& path, const std::string& text);

}  // namespace quillon::bench

#endif
