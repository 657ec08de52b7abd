#pragma once

#include <optional>
#include <string_view>

#include "base/secret-bytes.h"

namespace quillon {

/// The storage through its helper, for a process without the right to it. Each call is one
/// connection and waits as HelperPatience says; its failures are told on the log.

/// @param[out] bytes  the item when the result is 0, anything otherwise
/// @return the result of ss_read; nothing where no helper listens, and nothing is told then.
/// Thread: any. Throws std::bad_alloc.
std::optional<int> readThroughHelper(std::string_view item, SecretBytes& bytes);

/// @return the result of sdp_install_from_file; nothing where no helper listens, and nothing is
/// told then. Thread: any. Throws std::bad_alloc.
std::optional<int> installThroughHelper(const SecretBytes& package);

}  // namespace quillon
