#ifndef QUILLON_PLATFORM_PRIVILEGED_H
#define QUILLON_PLATFORM_PRIVILEGED_H

#ifdef __cplusplus
extern "C" {
#endif

/// Asks the privileged service for a mount.
///
/// @param request   "-o OPTIONS SOURCE DIRECTORY" in a zero-filled buffer
/// @param size      the size of that buffer in bytes
/// @param reserved  0
/// @param result    receives the service's answer, 0 when mounted
/// @return 0 when the request reached the service and was answered. Success means that both the
///         return value and *result are 0. Thread: any.
int PS_Mount(const char* request, int size, int reserved, int* result);

/// Asks the privileged service for a device node.
/// @param request  "-m MODE -Z LABEL NODE  b MAJOR MINOR" in a zero-filled buffer
/// Results as for PS_Mount.
int PS_Mknod(const char* request, int size, int reserved, int* result);

/// Asks the privileged service to unmount a directory.
/// @param directory  path of the mount point, NUL-terminated
/// @param length     the path's length in characters
/// Results as for PS_Mount.
int PS_Umount(const char* directory, int length, int reserved, int* result);

#ifdef __cplusplus
}
#endif

#endif
