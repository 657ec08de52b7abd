#ifndef QUILLON_BENCH_REFERENCE_PLAIN_DECIPHER_H
#define QUILLON_BENCH_REFERENCE_PLAIN_DECIPHER_H

#include <cstdio>

namespace quillon::bench {

/// Deciphers the rest of a stream but its last 534 bytes with AES-256-CBC, in the plainest way:
/// 10240 bytes a time through the stream's own buffer, into memory from calloc as it comes. What
/// the service's own aes_256_cbc_all is held against; it gives the same bytes.
///
/// @param count   bytes from the stream's position to its end
/// @param outlen  receives the number of output bytes
/// @return a buffer of count bytes from calloc, the caller's; null when memory is short
unsigned char* decipherPlainly(std::FILE* file, const unsigned char* key, const unsigned char* iv,
                               int count, int& outlen);

}  // namespace quillon::bench

#endif
