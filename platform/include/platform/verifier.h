#ifndef QUILLON_PLATFORM_VERIFIER_H
#define QUILLON_PLATFORM_VERIFIER_H

#ifdef __cplusplus
extern "C" {
#endif

/// The entries of the signature verifier library, which the service looks up by name at run time.
/// Thread: any.

/// Checks a file.
///
/// @param reserved  null
/// @param path      the file to check, NUL-terminated
/// @param caller    name of the caller, for the verifier's own messages
/// @return a value other than 0 when the file is correctly signed, 0 when it is not or cannot be
///         read.
int verifyFile(void* reserved, const char* path, const char* caller);

/// Checks what was really read, where the file could have been exchanged after verifyFile: the
/// service hashes it while it deciphers it, and asks before anything is installed. A platform's own
/// verifier may leave this entry out.
///
/// @param reserved      null
/// @param sha256        SHA-256 of every byte before the trailer, 32 bytes
/// @param trailer       the end of the file, which holds the signature
/// @param trailer_size  its length in bytes, 534
/// @param path          the file's path, NUL-terminated; it is not opened
/// @param caller        name of the caller, for the verifier's own messages
/// @return a value other than 0 when the trailer belongs to a correctly signed file of that name
///         and content; 0 when it does not, and for a null or empty argument other than caller.
int verifyDigest(void* reserved, const unsigned char* sha256, const unsigned char* trailer,
                 int trailer_size, const char* path, const char* caller);

#ifdef __cplusplus
}
#endif

#endif
