#pragma once

#include <optional>

#include "platform/verifier/image-signature.h"

namespace quillon {

/// Makes the trailer that signImage makes, with a salt that follows from what is signed: the same
/// content, purpose and key give the same bytes. Whoever checks it sees no difference.
/// @param key  an RSA-4096 private key
/// @throws ImageError with ImageFault::kKey when the key cannot sign, as that of a token which
///         does not offer RSA without padding.
ImageTrailer signImageReproducibly(const ContentDigest& content,
                                   const std::optional<ImagePurpose>& purpose, EVP_PKEY* key);

}  // namespace quillon
