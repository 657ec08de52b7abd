// Asking the platform's signature verifier.

#include <unistd.h>

#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kLibrary[] = "/usr/lib/libkUEPUser.so";
constexpr char kOpened[] = "dlopen(\"/usr/lib/libkUEPUser.so\", RTLD_LAZY) = ok";
constexpr char kNotOpened[] = "dlopen(\"/usr/lib/libkUEPUser.so\", RTLD_LAZY) = failed";
constexpr char kClosed[] = "dlclose(\"/usr/lib/libkUEPUser.so\") = 0";
constexpr char kSigned[] = "[uep][UserCaller] the file is signed successfully : /image\n";
constexpr char kNotSigned[] = "[uep][UserCaller] the file is NOT signed!! : /image\n";

class UepVerify : public DeviceTest
{
protected:
    UepVerify() { recordCalls({"dlopen", "dlclose"}); }

    static Step missingLibraryLine()
    {
        return LogFrom(
            "uep_verify", ERROR,
            like("[uep][UserCaller] pHandle Error: /usr/lib/libkUEPUser.so: *No such file*\n"));
    }

    static Step missingEntryLine()
    {
        return LogFrom("uep_verify", ERROR,
                       "[uep][UserCaller] dlsym Error: /usr/lib/libkUEPUser.so: undefined symbol: "
                       "verifyFile\n");
    }
};

TEST_F(UepVerify, WithoutALibraryEverythingCountsAsSignedAndIsReportedEveryTime)
{
    EXPECT_EQ(uep_verify("/image"), 1);
    EXPECT_EQ(uep_verify("/image"), 1);

    expectSteps({Call(kNotOpened), missingLibraryLine(), Call(kNotOpened), missingLibraryLine()});
}

TEST_F(UepVerify, AsksTheVerifierAndReportsASignedFile)
{
    device.addVerifier();

    EXPECT_EQ(uep_verify("/image"), 1);

    expectSteps({Call(kOpened), Plugin("verifyFile(null, \"/image\", \"UserCaller\") = 1"),
                 LogFrom("uep_verify", ERROR, kSigned)});
}

TEST_F(UepVerify, ReportsAFileThatIsNotSigned)
{
    device.addVerifier();
    device.verifierSays(0);

    EXPECT_EQ(uep_verify("/image"), 0);

    expectSteps({Call(kOpened), Plugin("verifyFile(null, \"/image\", \"UserCaller\") = 0"),
                 LogFrom("uep_verify", ERROR, kNotSigned)});
}

TEST_F(UepVerify, HandsEveryOtherAnswerBackAsSigned)
{
    device.addVerifier();
    for (const int answer : {7, -1, -2147483647}) {
        device.verifierSays(answer);
        clear();

        EXPECT_EQ(uep_verify("/image"), answer);

        expectTexts(logTexts(), {kSigned});
    }
}

TEST_F(UepVerify, LooksTheEntryUpOnceAndKeepsTheLibraryOpen)
{
    device.addVerifier();
    uep_verify("/image");
    device.verifierSays(0);
    ASSERT_EQ(unlink(kLibrary), 0);
    clear();

    EXPECT_EQ(uep_verify("/image"), 0);
    EXPECT_EQ(uep_verify("/image"), 0);

    const auto asked = Plugin("verifyFile(null, \"/image\", \"UserCaller\") = 0");
    const auto told = Log(ERROR, kNotSigned);
    SCOPED_TRACE("nothing opened or closed");
    expectSteps({asked, told, asked, told});
}

TEST_F(UepVerify, ALibraryWithoutTheEntryCountsAsSignedAndIsClosedEveryTime)
{
    device.addVerifier("verifier-without-entry");

    EXPECT_EQ(uep_verify("/image"), 1);
    EXPECT_EQ(uep_verify("/image"), 1);

    expectSteps({Call(kOpened), missingEntryLine(), Call(kClosed), Call(kOpened),
                 missingEntryLine(), Call(kClosed)});
}

TEST_F(UepVerify, AnEntryAtTheAddressNullCountsAsMissing)
{
    device.addVerifier("verifier-with-null-entry");

    EXPECT_EQ(uep_verify("/image"), 1);

    expectSteps(
        {Call(kOpened), Log(ERROR, like("[uep][UserCaller] dlsym Error: *")), Call(kClosed)});
}

TEST_F(UepVerify, TriesAgainAfterAFailedLoad)
{
    EXPECT_EQ(uep_verify("/image"), 1);
    device.addVerifier("verifier-without-entry");
    EXPECT_EQ(uep_verify("/image"), 1);
    ASSERT_EQ(unlink(kLibrary), 0);
    device.addVerifier();
    device.verifierSays(0);

    EXPECT_EQ(uep_verify("/image"), 0);

    expectSteps({Call(kNotOpened), missingLibraryLine(), Call(kOpened), missingEntryLine(),
                 Call(kClosed), Call(kOpened),
                 Plugin("verifyFile(null, \"/image\", \"UserCaller\") = 0"),
                 Log(ERROR, kNotSigned)});
}

TEST_F(UepVerify, AFileThatIsNoLibraryCountsAsAMissingLibrary)
{
    writeFile(kLibrary, "no library");

    EXPECT_EQ(uep_verify("/image"), 1);

    expectSteps({Call(kNotOpened), Log(ERROR, like("[uep][UserCaller] pHandle Error: *"))});
}

}  // namespace
}  // namespace quillon::test
