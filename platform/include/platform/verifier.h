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

/// Second entry of the library, which a platform's own verifier may leave out.
///
/// Asked once the service has read the whole image, with what it really read: the file may have been
/// exchanged after verifyFile had looked at it.
///
/// @param reserved      null
/// @param sha256        32 bytes: SHA-256 of everything before the trailer
/// @param trailer       the file's last bytes, which hold the signature
/// @param trailer_size  their number, 534
/// @param path          the file's path, NUL-terminated; its name counts, it is not opened
/// @param caller        as above
/// @return a value other than 0 when the trailer belongs to a file of that name and content, else 0.
/// Thread: any.
int verifyDigest(void* reserved, const unsigned char* sha256, const unsigned char* trailer,
                 int trailer_size, const char* path, const char* caller);

#ifdef __cplusplus
}
#endif

#endif
