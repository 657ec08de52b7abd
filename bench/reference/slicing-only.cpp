// Takes the place of the choice between kernels in quillon-kernels-sliced: a processor that does
// not multiply without carries.
#include "support/checksum-slicing.h"
#include "support/checksum.h"

namespace quillon {

std::uint32_t imageChecksum(std::uint32_t crc, const unsigned char* data, std::size_t size)
{
    return checksumBySlicing(crc, data, size);
}

}  // namespace quillon
