#ifndef QUILLON_BENCH_PROCESS_MACHINE_H
#define QUILLON_BENCH_PROCESS_MACHINE_H

#include <string>

namespace quillon::bench {

/// What figures depend on; nothing that tells whose machine it is.
struct Machine
{
    std::string processor;  ///< the model's name
    long cores = 0;         ///< that this process may use
    std::string kernel;     ///< name, release and architecture
    std::string compiler;   ///< that this library was built with
};

Machine thisMachine();

/// One line about it, in words.
std::string describe(const Machine& machine);

}  // namespace quillon::bench

#endif
