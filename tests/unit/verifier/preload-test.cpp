// The drop-in verifier-required.conf: a process that demands the verifier has it loaded before it
// runs out of descriptors and memory.

#include <regex>

#include "support/paths.h"
#include "support/texts.h"
#include "unit/tools/image-files.h"

namespace quillon::test {
namespace {

class Preload : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        std::filesystem::copy_file(VERIFIER_LIBRARY, paths::kVerifierLibrary);
    }

    void TearDown() override
    {
        std::filesystem::remove(paths::kVerifierLibrary);
        ImageFiles::TearDown();
    }

    /// Loads the verifier by the service's path, with nothing left. A sanitizer wants to be
    /// the first library in a process, and descriptors to look for leaks.
    int loadWith(const std::string& environment)
    {
        return shell("ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0 " + environment +
                     " " LOAD_WITH_NOTHING_LEFT " " + paths::kVerifierLibrary);
    }

    /// @return what the drop-in starts the service with, empty where that is nothing.
    static std::string environmentOfTheDropIn()
    {
        std::smatch start;
        const std::string text = readAll(VERIFIER_REQUIRED_DROP_IN);
        const std::regex line("\nExecStart=\nExecStart=/usr/bin/env (\\S+) \\S+/quillon-service\n");
        return std::regex_search(text, start, line) ? start[1].str() : "";
    }
};

TEST_F(Preload, NamesTheVerifierWhereTheServiceLooksForIt)
{
    EXPECT_EQ(environmentOfTheDropIn(), std::string("LD_PRELOAD=") + paths::kVerifierLibrary);
}

/// Its owner and mode are looked at by programs of root's, which would run its code before.
TEST_F(Preload, IsForTheServiceAlone)
{
    expectNoText(readAll(VERIFIER_REQUIRED_DROP_IN), "Environment=");
}

TEST_F(Preload, LetsTheVerifierBeFoundWithNeitherDescriptorNorMemory)
{
    EXPECT_EQ(loadWith(environmentOfTheDropIn()), 0);
    EXPECT_EQ(out, "found\n");
}

TEST_F(Preload, IsNeededForThat)
{
    EXPECT_EQ(loadWith(""), 1);
    expectNoText(out, "found\n");
}

}  // namespace
}  // namespace quillon::test
