// quillon-unit require-trust, on a virtual device.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

TEST(RequireTrust, LooksAtEveryPlaceOfTheDevice)
{
    const auto run = [] { return std::system(QUILLON_UNIT_PROGRAM " require-trust 2>/opt/said"); };
    umask(0022);
    ASSERT_EQ(run(), 0) << "the directories are this machine's";

    for (const char* place :
         {"/etc/quillon/trusted-keys/a.pem", "/etc/quillon/provisioning-certificates/a.pem",
          "/etc/quillon/trust.conf", "/var/lib/quillon/trust/floors", "/usr/lib/libkUEPUser.so",
          "/usr/fwupdate/controls/a.so"}) {
        SCOPED_TRACE(place);
        fs::create_directories(fs::path(place).parent_path());
        std::ofstream(place) << "something";
        EXPECT_EQ(run(), 0);
        ASSERT_EQ(chmod(place, 0666), 0);
        EXPECT_EQ(WEXITSTATUS(run()), 1);
        std::ifstream said("/opt/said");
        std::string line;
        std::getline(said, line);
        EXPECT_EQ(line,
                  std::string("quillon-unit: ") + place +
                      " can be written by others than root (mode 0666); mend it: chmod go-w " +
                      place);
        fs::remove(place);
    }
}

}  // namespace
