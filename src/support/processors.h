#pragma once

#include <sched.h>

namespace quillon {

/// @return whether the calling thread may run on more than one processor, so that a second thread
///         can work beside it. Thread: any.
inline bool hasAnotherProcessor()
{
    cpu_set_t processors;
    return sched_getaffinity(0, sizeof processors, &processors) == 0 && CPU_COUNT(&processors) > 1;
}

}  // namespace quillon
