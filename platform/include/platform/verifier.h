#ifndef QUILLON_PLATFORM_VERIFIER_H
#define QUILLON_PLATFORM_VERIFIER_H

#ifdef __cplusplus
extern "C" {
#endif

/// Entry of the signature verifier library, which the service looks up by name at run time.
///
/// @param reserved  null
/// @param path      the file to check, NUL-terminated
/// @param caller    name of the caller, for the verifier's own messages
/// @return a value other than 0 when the file is correctly signed, 0 when it is not or cannot be
///         read. Thread: any.
int verifyFile(void* reserved, const char* path, const char* caller);

#ifdef __cplusplus
}
#endif

#endif
