#include "platform/storage/sealing.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/storage/piped-program.h"
#include "platform/storage/provisioning-content.h"

namespace quillon {

namespace {

constexpr char kProgram[] = QUILLON_SYSTEMD_CREDS;
// A TPM may take seconds. Reading and writing one item each fit into the 30 s that a client waits.
constexpr std::chrono::seconds kLongestSealing(QUILLON_SEALING_SECONDS);

}  // namespace

bool sealingIsThere()
{
    return access(kProgram, F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::string seal(const std::string& item, const SecretBytes& plain, SecretBytes& sealed)
{
    return runPiped({kProgram, "encrypt", "--with-key=auto", "--name=" + item, "-", "-"}, plain,
                    kLargestSealed, kLongestSealing, sealed);
}

std::string unseal(const std::string& item, const SecretBytes& sealed, SecretBytes& plain)
{
    return runPiped({kProgram, "decrypt", "--name=" + item, "-", "-"}, sealed, kLargestItem,
                    kLongestSealing, plain);
}

}  // namespace quillon
