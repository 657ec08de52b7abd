// What quillonctl tells people to run where neither systemd nor an init script starts the service.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/process.h"
#include "system/system-test.h"
#include "unit/tools/ctl-program.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

/// @param text  the end of a finding's
/// @return its remedy
std::string remedyOf(const std::string& text)
{
    const std::string out = runCtl({"doctor"}).out;
    const std::string opening = text + "\n    ";
    const std::size_t found = out.find(opening);
    if (found == std::string::npos) {
        ADD_FAILURE() << "not found: " << text << "\n" << out;
        return "false";
    }
    const std::size_t begin = found + opening.size();
    return out.substr(begin, out.find('\n', begin) - begin);
}

/// Runs it as a shell that finds the service.
void obey(const std::string& remedy)
{
    const fs::path program = QUILLON_SERVICE_PROGRAM;
    const Result result = runInShell("PATH='" + program.parent_path().string() + "':$PATH; { " +
                                     remedy + " } >/dev/null 2>&1");
    EXPECT_EQ(result.status, 0) << remedy;
}

std::string serviceProcess()
{
    return runInShell("pidof quillon-service").out;
}

class WithoutSystemd : public SystemTest
{
};

TEST_F(WithoutSystemd, TheServiceIsStartedAndStartedAnewByWhatDoctorNames)
{
    if (fs::exists("/run/systemd/system") || fs::exists("/etc/init.d/quillon")) {
        GTEST_SKIP() << "this machine starts services in another way";
    }
    if (!serviceProcess().empty()) {
        GTEST_SKIP() << "this machine has a service of its own";
    }

    obey(remedyOf("nothing can be updated from a stick"));
    ASSERT_TRUE(waitFor("the service", [] { return fs::exists(kReadyEvent); }));
    const std::string first = serviceProcess();
    fs::remove(kLifeMarker);
    obey(remedyOf("since its marker /tmp/fw_update_ready_usb is gone"));
    ASSERT_TRUE(waitFor("the next one", [] { return fs::exists(kReadyEvent); }));
    EXPECT_NE(serviceProcess(), first);

    fs::remove(kLifeMarker);
    EXPECT_TRUE(waitFor("its end", [] { return serviceProcess().empty(); }));
}

}  // namespace
}  // namespace quillon::test
