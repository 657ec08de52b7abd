// The drop-in verifier-required.conf: a process that demands the verifier has it loaded before it
// runs out of descriptors and memory.

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

    /// @return the value of the drop-in's one line "Environment=", empty without such a line.
    static std::string environmentOfTheDropIn()
    {
        const std::string key = "\nEnvironment=";
        const std::string text = readAll(VERIFIER_REQUIRED_DROP_IN);
        const std::size_t at = text.find(key);
        if (at == std::string::npos) {
            return "";
        }
        const std::size_t start = at + key.size();
        return text.substr(start, text.find('\n', start) - start);
    }
};

TEST_F(Preload, NamesTheVerifierWhereTheServiceLooksForIt)
{
    EXPECT_EQ(environmentOfTheDropIn(), std::string("LD_PRELOAD=") + paths::kVerifierLibrary);
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
