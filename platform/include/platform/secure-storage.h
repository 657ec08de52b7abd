#ifndef QUILLON_PLATFORM_SECURE_STORAGE_H
#define QUILLON_PLATFORM_SECURE_STORAGE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Who asks the storage. Filled by ss_init_credential only.
typedef struct
{
    uint32_t words[5];  ///< caller identity, provisioned together with the device
    int flags[2];
    unsigned char reserved[64];
} ss_credential;

/// Fills a caller credential.
/// @param credential  written whole
/// @return 0 on success. Thread: any.
int ss_init_credential(ss_credential* credential, uint32_t word0, uint32_t word1, uint32_t word2,
                       uint32_t word3, uint32_t word4, int flag0, int flag1);

/// Reads a whole item.
///
/// @param data  on 0 receives a buffer of *size bytes that the caller gives back with
///              ss_free_buffer; untouched otherwise
/// @param size  on 0 receives the item's length in bytes
/// @param item  the item's name, NUL-terminated
/// @param mode  the service passes 33
/// @return 0 on success, 5 when there is no such item, another value on any other failure.
/// Thread: any.
int ss_read(unsigned char** data, size_t* size, int reserved0, int reserved1, const char* item,
            ss_credential* credential, unsigned int mode);

/// Gives back a buffer of ss_read. The bytes are wiped first. A null pointer is allowed.
void ss_free_buffer(unsigned char* data);

/// Places the contents of a provisioning package into the secure storage.
///
/// @param path  the package file
/// @param kind  the service passes 2
/// @return 0 installed, 2 already installed, another value on failure. Thread: any.
int sdp_install_from_file(const char* path, int kind, int reserved);

#ifdef __cplusplus
}
#endif

#endif
