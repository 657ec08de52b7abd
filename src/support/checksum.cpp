#include "support/checksum.h"

#include "support/checksum-folding.h"
#include "support/checksum-slicing.h"

namespace quillon {

std::uint32_t imageChecksum(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    static const auto kernel = canFoldChecksum() ? checksumByFolding : checksumBySlicing;
    return kernel(crc, data, size);
}

}  // namespace quillon
