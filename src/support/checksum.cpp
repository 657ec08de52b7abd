#include "support/checksum.h"

#include "support/checksum-folding.h"
#include "support/checksum-slicing.h"
#include "support/checksum-wide-folding.h"

namespace quillon {
namespace {

decltype(&imageChecksum) fastestKernel()
{
    if (canFoldChecksumWide()) {
        return checksumByWideFolding;
    }
    return canFoldChecksum() ? checksumByFolding : checksumBySlicing;
}

}  // namespace

std::uint32_t imageChecksum(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    static const auto kernel = fastestKernel();
    return kernel(crc, data, size);
}

}  // namespace quillon
