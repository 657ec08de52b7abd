#pragma once

#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {

/// A device with a verifier and a stick, and one module, "alpha". Whatever an operation does with
/// an image, it leaves no file open.
class UsbImages : public DeviceTest
{
protected:
    UsbImages() { device.addVerifier(); }

    /// Installs the module and loads it. Returns what loading said.
    int install(const Module& description)
    {
        device.addModule("alpha", description);
        const int result = module.loadSymbol("alpha");
        fakes::clear();
        return result;
    }

    int estimate()
    {
        const int before = openDescriptors();
        const int result = module.getNeedUpdateList(key, stick.path());
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }

    int update()
    {
        const int before = openDescriptors();
        const int result = module.updateUSB(key, stick.path());
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return result;
    }

    /// An earlier decision, to be replaced or kept: an update is needed and takes 30 s.
    void decideEarlier()
    {
        device.changeModule("alpha", Module().needsUpdate().takesSeconds(30));
        stick.addImage("alpha", Image());
        ASSERT_EQ(estimate(), 1);
        fakes::clear();
    }

    void expectDecision(bool need, int seconds)
    {
        EXPECT_EQ(module.getNeedUpdate(), need);
        EXPECT_EQ(module.getExpectedUpdateTime(), seconds);
    }

    const Stick stick = device.stick();
    FWUpdateSymbol module{"alpha"};

    const fakes::Step verified =
        fakes::Plugin("verifyFile(null, \"/opt/media/USBDriveA/alpha.bin\", \"UserCaller\") = 1");
    const fakes::Step saidSigned =
        fakes::LogFrom("uep_verify", fakes::ERROR,
                       "[uep][UserCaller] the file is signed successfully : "
                       "/opt/media/USBDriveA/alpha.bin\n");
    const fakes::Step refused =
        fakes::Plugin("verifyFile(null, \"/opt/media/USBDriveA/alpha.bin\", \"UserCaller\") = 0");
    const fakes::Step saidNotSigned = fakes::LogFrom("uep_verify", fakes::ERROR,
                                                     "[uep][UserCaller] the file is NOT signed!! : "
                                                     "/opt/media/USBDriveA/alpha.bin\n");
    const fakes::Step checked = fakes::Plugin("alpha.checkVersion(\"2.0\", need -1)");
    const fakes::Step contextSet = fakes::Plugin("alpha.setContext(\"alpha\", 3, \"\")");
};

}  // namespace quillon::test
