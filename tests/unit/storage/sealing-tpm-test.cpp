// Items sealed with a TPM, which swtpm plays.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "base/secret-bytes.h"
#include "item-directory.h"
#include "platform/storage/item-store.h"
#include "sealing-program.h"
#include "support/texts.h"
#include "support/wait.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

const std::string kState = "/run/quillon/tpm";
const std::string kSocket = kState + "/socket";

class TpmSealing : public ItemDirectory
{
protected:
    void SetUp() override
    {
        ItemDirectory::SetUp();
        if (access("/usr/bin/swtpm", X_OK) != 0 ||
            !putRealSealing("host+tpm2", "swtpm:path=" + kSocket)) {
            GTEST_SKIP() << "swtpm or systemd-creds is not installed";
        }
        fs::create_directories(kState);
        startTpm();
    }

    void TearDown() override
    {
        endTpm();
        fs::remove_all(kState);
        removeSealingProgram();
        ItemDirectory::TearDown();
    }

    void startTpm()
    {
        const std::string state = "dir=" + kState;
        const std::string server = "type=unixio,path=" + kSocket;
        const std::string control = "type=unixio,path=" + kSocket + ".ctrl";
        std::string words[] = {"swtpm",
                               "socket",
                               "--tpm2",
                               "--tpmstate",
                               state,
                               "--server",
                               server,
                               "--ctrl",
                               control,
                               "--flags",
                               "not-need-init,startup-clear"};
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        ASSERT_EQ(posix_spawn(&tpm_, "/usr/bin/swtpm", nullptr, nullptr, arguments.data(), environ),
                  0);
        waitFor("the TPM's socket", [] { return fs::exists(kSocket); });
    }

    void endTpm()
    {
        if (tpm_ > 0) {
            kill(tpm_, SIGKILL);
            waitpid(tpm_, nullptr, 0);
        }
        tpm_ = -1;
        fs::remove(kSocket);
    }

    pid_t tpm_ = -1;
};

TEST_F(TpmSealing, KeepsAnItemThatNeedsThatTpm)
{
    const SecretBytes key(32, 'k');
    SecretBytes bytes;
    ASSERT_EQ(storeItem("quillon", key), kStoreOk) << captured.text();
    expectTexts(namesInDirectory(), {"quillon.cred"});
    ASSERT_EQ(readItem("quillon", bytes), kStoreOk) << captured.text();
    EXPECT_EQ(bytes, key);

    endTpm();
    fs::remove_all(kState);
    fs::create_directories(kState);
    startTpm();  // another one
    captured.clear();
    EXPECT_EQ(readItem("quillon", bytes), kStoreSealed);
    expectText(captured.text(), like("*cannot be unsealed*"));
}

}  // namespace
}  // namespace quillon::test
