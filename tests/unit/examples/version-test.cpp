// Which versions the examples want, and how long they say that it takes.

#include <cerrno>
#include <fstream>

#include "unit/examples/example-module.h"

namespace quillon::test {
namespace {

class Version : public FirmwareModules
{
protected:
    int needFor(const std::string& version)
    {
        int need = -1;
        EXPECT_EQ(offer(version, &need), 0) << version;
        return need;
    }

    void install(const std::string& version)
    {
        ASSERT_EQ(offer(version), 0);
        ASSERT_EQ(flash("firmware"), 0);
    }
};

TEST_P(Version, IsZeroBeforeTheFirstUpdate)
{
    EXPECT_EQ(activeVersion(), "0");
    EXPECT_EQ(needFor("0"), 0);
    EXPECT_EQ(needFor("0.0.1"), 1);
}

TEST_P(Version, IsNeededWhenItIsNewerOnly)
{
    install("1.9");
    EXPECT_EQ(needFor("1.10"), 1);
    EXPECT_EQ(needFor("2"), 1);
    EXPECT_EQ(needFor("1.9.1"), 1);
    EXPECT_EQ(needFor("1.9"), 0);
    EXPECT_EQ(needFor("1.9.0"), 0);
    EXPECT_EQ(needFor("1.8.99"), 0);
    EXPECT_EQ(needFor("0.10"), 0);
}

TEST_P(Version, ThatIsNoneFailsTheCheck)
{
    for (const char* version : {"", "two", "1.", ".1", "1..2", "1.2-beta", "-1", " 1", "1 "}) {
        EXPECT_EQ(offer(version), -1) << version;
    }
    EXPECT_EQ(offer(std::string(64, '\xF3')), -1);
}

TEST_P(Version, ThatCouldNotBeToldLaterFailsTheCheck)
{
    const std::string longest = std::string(FW_PLUGIN_TEXT_SIZE - 2, '0') + "1";
    install(longest);
    EXPECT_EQ(activeVersion(), longest);

    EXPECT_EQ(offer('0' + longest), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_P(Version, IsReadAgainFromTheDisk)
{
    std::filesystem::create_directories(module.state);
    std::ofstream(module.state + "version") << "3.1\n";

    EXPECT_EQ(activeVersion(), "3.1");
    EXPECT_EQ(needFor("3.1"), 0);
    EXPECT_EQ(needFor("3.2"), 1);
}

TEST_P(Version, CheckingTellsTheExpectedTimeOfTheSettings)
{
    const auto expectedTime = [&] {
        int seconds = -1;
        EXPECT_EQ(CALL(module, getExpectedTime)(&seconds), 0);
        return seconds;
    };
    EXPECT_EQ(expectedTime(), 5);
    module.configure("speed=1000\nexpected_time=17\n");
    EXPECT_EQ(expectedTime(), 17);
    module.configure("expected_time=-3\n");
    EXPECT_EQ(expectedTime(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Version, kFirmwareModules, nameOf);

}  // namespace
}  // namespace quillon::test
