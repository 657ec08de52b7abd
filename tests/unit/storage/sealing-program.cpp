#include "sealing-program.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace quillon::test {

namespace {

constexpr char kReal[] = "/usr/bin/systemd-creds";
constexpr char kHostKey[] = "/var/lib/quillon/credential.secret";

}  // namespace

void putSealingScript(const std::string& script)
{
    unlink(kSealingProgram);
    std::ofstream(kSealingProgram) << "#!/bin/sh\n" << script << "\n";
    ASSERT_EQ(chmod(kSealingProgram, 0755), 0);
}

bool putRealSealing(const std::string& withKey, const std::string& tpmDevice)
{
    if (access(kReal, X_OK) != 0) {
        return false;
    }
    const std::string key = std::string("export SYSTEMD_CREDENTIAL_SECRET=") + kHostKey + "\n";
    const std::string tpm =
        tpmDevice.empty() ? "" : "export SYSTEMD_TPM2_DEVICE=" + tpmDevice + "\n";
    putSealingScript(key + tpm + "exec " + kReal +
                     " $(echo \"$@\" | sed 's/--with-key=auto/--with-key=" + withKey + "/')");
    return true;
}

void removeSealingProgram()
{
    unlink(kSealingProgram);
    unlink(kHostKey);
}

}  // namespace quillon::test
