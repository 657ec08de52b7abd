#ifndef QUILLON_BENCH_ROWS_KERNEL_RUNS_H
#define QUILLON_BENCH_ROWS_KERNEL_RUNS_H

#include <string>

namespace quillon::bench {

/// Runs one benchmark of quillon-kernels in a process of its own.
/// @param name     "decipher/service" and so on
/// @param file     what it works on
/// @param program  the program's name in the build folder's bench/
/// @return milliseconds an iteration
/// @throws std::runtime_error when it fails or there is no such benchmark
double kernelTime(const std::string& buildFolder, const std::string& name, const std::string& file,
                  const std::string& program = "quillon-kernels");

/// @param output  what Google Benchmark has written as JSON
/// @return the milliseconds of its only benchmark
/// @throws std::runtime_error when it tells of an error, or not of one benchmark
double millisecondsIn(const std::string& output);

/// @param output  what openssl speed -mr has written
/// @return bytes a second
/// @throws std::runtime_error when there is no such line
double speedIn(const std::string& output);

}  // namespace quillon::bench

#endif
