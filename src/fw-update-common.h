#pragma once

#include <semaphore.h>

/// Name of the semaphore that lets one guarded module update at a time run on the device.
extern const char* const semName;

/// Holder of the update semaphore that all processes of the device share.
///
/// The semaphore is made by whoever asks first, with the value 1 and mode 0600, and outlives every
/// process: nobody removes its name. Thread: any.
class FWUpdateCommon
{
public:
    /// The one instance, made on first use.
    static FWUpdateCommon& getInstance();

    /// Opens the semaphore, making it if it is not there.
    /// @return its handle, which the caller does not close, or null (logged) when it cannot be had.
    sem_t* create_semaphore();

    /// Opens the semaphore as create_semaphore does and closes that handle. The name stays.
    void destroy_semaphore();

    FWUpdateCommon(const FWUpdateCommon&) = delete;
    FWUpdateCommon& operator=(const FWUpdateCommon&) = delete;

private:
    FWUpdateCommon() = default;
};
