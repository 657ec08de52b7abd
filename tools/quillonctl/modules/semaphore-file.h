#ifndef QUILLON_QUILLONCTL_SEMAPHORE_FILE_H
#define QUILLON_QUILLONCTL_SEMAPHORE_FILE_H

namespace quillon {

/// Where the C library keeps the update semaphore (semName).
inline constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";

}  // namespace quillon

#endif
