// Security floors that packages bring, and what the device's policy wants of a package's signer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "base/fd.h"
#include "platform/storage/signed-package.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/trust-policy.h"
#include "provisioned-device.h"
#include "support/files.h"
#include "support/texts.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::test;

constexpr int kAlreadyInstalled = 2;
constexpr int kMalformed = 4;
constexpr int kNotTrusted = 5;
constexpr int kStorageFailed = 8;
constexpr int kNobodyTrusted = 9;

const fs::path kFloors = QUILLON_SECURITY_FLOORS;

class Floor : public ProvisionedDevice
{
protected:
    void TearDown() override
    {
        fs::remove_all(kFloors.parent_path());
        fs::remove_all(QUILLON_TRUST_POLICY);
        ProvisionedDevice::TearDown();
    }

    int installContent(const std::string& content) { return install(signedBy(maker, content)); }

    int installFloors(const std::string& lines)
    {
        return installContent("QUILLON-PROVISION 1\n" + lines + "\n");
    }

    static unsigned modeOf(const fs::path& path)
    {
        return static_cast<unsigned>(fs::status(path).permissions());
    }
};

TEST_F(Floor, OfAPackageIsKeptWhereAllCanReadIt)
{
    umask(0077);
    EXPECT_EQ(installFloors("floor tuner 7\nfloor camera 2\n"), 0);

    EXPECT_EQ(readAll(kFloors), "floor.camera = 2\nfloor.tuner = 7\n");
    EXPECT_EQ(modeOf(kFloors), 0644U);
    EXPECT_EQ(modeOf(kFloors.parent_path()), 0755U);
    expectTextAmong(captured.lines(), like("*raised the security floor of tuner to 7*"));
    SCOPED_TRACE("there was no item in it");
    expectTexts(namesInDirectory(), {});
}

TEST_F(Floor, ComesAlongWithAnItem)
{
    EXPECT_EQ(installContent("QUILLON-PROVISION 1\nitem quillon\nfloor tuner 7\n\nkey"), 0);
    EXPECT_EQ(readAll(pathOf("quillon")), "key");
    EXPECT_EQ(readAll(kFloors), "floor.tuner = 7\n");

    EXPECT_EQ(installContent("QUILLON-PROVISION 1\nitem quillon\nfloor tuner 8\n\nkey"), 0)
        << "the item is there already, the floor is news";
    EXPECT_EQ(installContent("QUILLON-PROVISION 1\nitem quillon\nfloor tuner 8\n\nkey"),
              kAlreadyInstalled);
}

TEST_F(Floor, IsRaisedAndNeverLowered)
{
    ASSERT_EQ(installFloors("floor tuner 7\nfloor camera 2\n"), 0);

    EXPECT_EQ(installFloors("floor tuner 6\nfloor camera 3\n"), 0);
    EXPECT_EQ(readAll(kFloors), "floor.camera = 3\nfloor.tuner = 7\n");
    expectTextAmong(captured.lines(),
                    like("*has the security floor 6 for tuner, which stays at 7: none is "
                         "lowered*"));

    EXPECT_EQ(installFloors("floor tuner 0\n"), kAlreadyInstalled);
    EXPECT_EQ(readAll(kFloors), "floor.camera = 3\nfloor.tuner = 7\n");
}

TEST_F(Floor, ThatTheFileHasNoRoomForIsRefusedAndTrustsNoLess)
{
    ASSERT_EQ(installFloors("floor tuner 7\n"), 0);
    const std::string before = readAll(kFloors);
    std::string many;
    for (int i = 0; i < 3000; ++i) {
        many += "floor module" + std::to_string(i) + "ofaverylongname 4294967295\n";
    }

    EXPECT_EQ(installFloors(many), kStorageFailed);

    EXPECT_EQ(readAll(kFloors), before);
    expectTextAmong(captured.lines(), like("*brings too many security floors*"));
    EXPECT_EQ(installFloors("floor tuner 8\n"), 0) << "the next package is taken";
}

TEST_F(Floor, OfAStrangerRaisesNothing)
{
    const Maker stranger = makeMaker();

    EXPECT_EQ(install(signedBy(stranger, "QUILLON-PROVISION 1\nfloor tuner 7\n\n")), kNotTrusted);
    EXPECT_FALSE(fs::exists(kFloors));
}

TEST_F(Floor, ThatIsNotExactlyAsItHasToBeIsRefused)
{
    for (const char* lines :
         {"floor tuner\n", "floor tuner 7 \n", "floor tuner  7\n", "floor tu-ner 7\n",
          "floor tuner -1\n", "floor tuner 4294967296\n", "floor tuner 7\nfloor tuner 8\n",
          "Floor tuner 7\n", "floor tuner 7\nitem quillon\n", "floor  7\n", ""}) {
        SCOPED_TRACE(lines);
        EXPECT_EQ(installFloors(lines), kMalformed);
    }
    EXPECT_EQ(installFloors("floor tuner 7\n\npayload of no item"), kMalformed);
    EXPECT_FALSE(fs::exists(kFloors));
}

TEST_F(Floor, ThatCannotBeStoredKeepsTheItemOut)
{
    writeFile(kFloors.parent_path(), "not a directory");

    EXPECT_EQ(installContent("QUILLON-PROVISION 1\nitem quillon\nfloor tuner 7\n\nkey"),
              kStorageFailed);
    expectTextAmong(captured.lines(), like("*trust cannot be made and locked*"));
    expectTexts(namesInDirectory(), {});
}

TEST_F(Floor, IsNotPutInPlaceOfFloorsThatCannotBeUnderstood)
{
    ASSERT_EQ(installFloors("floor tuner 7\n"), 0);
    writeFile(kFloors, "floor.tuner = seven\n");

    EXPECT_EQ(installFloors("floor tuner 8\n"), kStorageFailed);
    expectTextAmong(
        captured.lines(),
        like("*security floors cannot be raised: *floors:1: \"seven\" has to be a number*"));
    EXPECT_EQ(readAll(kFloors), "floor.tuner = seven\n");
}

/// Waits until a process waits for a lock, or has ended.
/// @return whether it waits
bool comesToWaitForALock(pid_t process)
{
    const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(process) + " ";
    siginfo_t ended = {};
    while (waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0) {
        if (readAll("/proc/locks").find(waiting) != std::string::npos) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

TEST_F(Floor, IsNotLostToAnotherPackageAtTheSameTime)
{
    ASSERT_EQ(installFloors("floor panel 1\n"), 0);
    writeFile(kPackage, signedBy(maker, "QUILLON-PROVISION 1\nfloor camera 2\n\n"));
    UniqueFd lock(open((kFloors.parent_path() / ".lock").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    const pid_t other = fork();
    if (other == 0) {
        lock = UniqueFd();
        _exit(sdp_install_from_file(kPackage, 2, 0));
    }

    EXPECT_TRUE(comesToWaitForALock(other));
    writeFile(kFloors, "floor.panel = 1\nfloor.tuner = 7\n", 0644);
    lock = UniqueFd();
    int status = -1;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readAll(kFloors), "floor.camera = 2\nfloor.panel = 1\nfloor.tuner = 7\n");
}

class Purpose : public Floor
{
protected:
    static Maker makerFor(const char* purpose)
    {
        CertificateWishes wishes;
        wishes.purpose = purpose;
        return makeMaker(wishes);
    }

    void trustMaker(const Maker& other) { trust("other.pem", pemOf(other)); }
};

TEST_F(Purpose, IsNotAskedForWithoutAPolicy)
{
    EXPECT_EQ(install(package("quillon", "key")), 0);
    writeFile(QUILLON_TRUST_POLICY, "provisioning-purpose = optional\n");
    EXPECT_EQ(install(package("quillon", "other key")), 0);
}

TEST_F(Purpose, ThatIsRequiredHasToBeInTheSignersCertificate)
{
    writeFile(QUILLON_TRUST_POLICY, "provisioning-purpose = required\n");
    EXPECT_EQ(install(package("quillon", "key")), kNotTrusted);
    expectText(captured.text(),
               like("*its signer's certificate is not for provisioning: it lacks the "
                    "extended key usage 2.25.321772490656420471694796864872059128122*"));

    for (const char* purpose : {"serverAuth", "anyExtendedKeyUsage", "emailProtection,1.2.3.4"}) {
        const Maker other = makerFor(purpose);
        trustMaker(other);
        EXPECT_EQ(install(packageBy(other, "quillon", "key")), kNotTrusted) << purpose;
    }
    expectTexts(namesInDirectory(), {});

    const Maker right = makerFor(kProvisioningPurpose);
    trustMaker(right);
    EXPECT_EQ(install(packageBy(right, "quillon", "key")), 0);
    const Maker rightToo = makerFor("emailProtection,2.25.321772490656420471694796864872059128122");
    trustMaker(rightToo);
    EXPECT_EQ(install(packageBy(rightToo, "quillon", "other key")), 0);
}

TEST_F(Purpose, OfAnAuthorityIsNotItsSigners)
{
    writeFile(QUILLON_TRUST_POLICY, "provisioning-purpose = required\n");
    CertificateWishes wishes;
    wishes.name = "authority";
    wishes.isAuthority = true;
    wishes.purpose = kProvisioningPurpose;
    const Maker authority = makeMaker(wishes);
    trustMaker(authority);
    CertificateWishes leaf;
    leaf.name = "signer";
    leaf.issuer = &authority;
    const Maker signer = makeMaker(leaf);
    EXPECT_EQ(install(packageBy(signer, "quillon", "key")), kNotTrusted);

    leaf.purpose = kProvisioningPurpose;
    const Maker rightSigner = makeMaker(leaf);
    EXPECT_EQ(install(packageBy(rightSigner, "quillon", "key")), 0);
}

TEST_F(Purpose, OfAPolicyThatCannotBeUnderstoodTrustsNobody)
{
    writeFile(QUILLON_TRUST_POLICY, "provisioning-purpose = maybe\n");

    EXPECT_EQ(install(package("quillon", "key")), kNobodyTrusted);
    expectText(captured.text(), like("*trust.conf:1: \"maybe\" has to be*"));
    expectTexts(namesInDirectory(), {});
}

}  // namespace
