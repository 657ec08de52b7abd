// quillon-unit require-trust, on a virtual device.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/process.h"

namespace {

using quillon::test::Result;
using quillon::test::runInShell;
using quillon::test::writeFile;

namespace fs = std::filesystem;

TEST(RequireTrust, LooksAtEveryPlaceOfTheDevice)
{
    const auto run = [] { return runInShell(QUILLON_UNIT_PROGRAM " require-trust"); };
    umask(0022);
    ASSERT_EQ(run().status, 0) << "the directories are this machine's";

    for (const char* place :
         {"/etc/quillon/trusted-keys/a.pem", "/etc/quillon/provisioning-certificates/a.pem",
          "/etc/quillon/trust.conf", "/var/lib/quillon/trust/floors", "/usr/lib/libkUEPUser.so",
          "/usr/fwupdate/controls/a.so"}) {
        SCOPED_TRACE(place);
        writeFile(place, "something");
        EXPECT_EQ(run().status, 0);
        ASSERT_EQ(chmod(place, 0666), 0);
        const Result result = run();
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err.substr(0, result.err.find('\n')),
                  std::string("quillon-unit: ") + place +
                      " can be written by others than root (mode 0666); mend it: chmod go-w " +
                      place);
        fs::remove(place);
    }
}

}  // namespace
