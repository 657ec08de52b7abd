#include "fw-update-common.h"

#include <fcntl.h>

#include "support/log.h"

const char* const semName = "/SEM_UPDATE_CONTROL";

FWUpdateCommon& FWUpdateCommon::getInstance()
{
    static FWUpdateCommon instance;
    return instance;
}

sem_t* FWUpdateCommon::create_semaphore()
{
    sem_t* semaphore = sem_open(semName, O_CREAT, 0600, 1);
    if (semaphore == SEM_FAILED) {
        FW_LOGE("Parent\t: [sem_open] Failed\n");
        return nullptr;
    }
    return semaphore;
}

void FWUpdateCommon::destroy_semaphore()
{
    sem_t* semaphore = sem_open(semName, O_CREAT, 0600, 1);
    if (semaphore == SEM_FAILED) {
        FW_LOGE("Parent\t: [sem_open] Failed\n");
        return;
    }
    static_cast<void>(sem_close(semaphore));
}
