#include "fw-update-symbol-manager-registry.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

constexpr const char* kNoVersion = "Error: getSwVersion fail";

class SoftwareVersion : public RegistryTest
{
};

struct Value
{
    const char* text;
    const char* model;
};

std::ostream& operator<<(std::ostream& out, const Value& value)
{
    return out << '"' << value.text << '"';
}

class SoftwareVersionValue : public SoftwareVersion, public ::testing::WithParamInterface<Value>
{
};

}  // namespace

TEST_P(SoftwareVersionValue, IsKeptUpToItsLastDash)
{
    platform().softwareVersion = GetParam().text;

    EXPECT_EQ(manager->getSWVersionString(), 0);

    expectSteps(
        {Call("system_info_get_value_string(128) = 0"),
         LogFrom("getSWVersionString", INFO, std::string("SWModel : ") + GetParam().model)});
}

INSTANTIATE_TEST_SUITE_P(Values, SoftwareVersionValue,
                         ::testing::Values(Value{"T-MODEL-1234", "T-MODEL"},
                                           Value{"MODEL-1", "MODEL"}, Value{"MODEL-", "MODEL"},
                                           Value{"-1", ""}, Value{"-", ""}, Value{"A--B", "A-"},
                                           Value{"%s-1", "%s"}));

TEST_F(SoftwareVersion, WithoutADashIsAFailure)
{
    platform().softwareVersion = "MODEL 1";

    EXPECT_EQ(manager->getSWVersionString(), -1);

    expectSteps({Call("system_info_get_value_string(128) = 0"),
                 LogFrom("getSWVersionString", ERROR,
                         "getSWVersionString: Wrong string format - lack of dash: MODEL 1")});
}

TEST_F(SoftwareVersion, OfNoCharactersIsAFailure)
{
    platform().softwareVersion = "";

    EXPECT_EQ(manager->getSWVersionString(), -1);

    expectTexts(logTexts(), {"getSWVersionString: Wrong string format - lack of dash: "});
}

TEST_F(SoftwareVersion, ThatThePlatformDoesNotTellIsAFailure)
{
    platform().systemInfo.then({-1, 7});

    EXPECT_EQ(manager->getSWVersionString(), -1);
    EXPECT_EQ(manager->getSWVersionString(), -1);

    expectSteps({Call("system_info_get_value_string(128) = -1"),
                 LogFrom("getSWVersionString", ERROR, "Unable to read SW version from system-info"),
                 Call("system_info_get_value_string(128) = 7"),
                 Log(ERROR, "Unable to read SW version from system-info")});
}

TEST_F(SoftwareVersion, ThatIsMissingDoesNotStopTheStart)
{
    platform().systemInfo.always(-1);

    EXPECT_TRUE(manager->getIsReady(true));

    expectSteps({Call("system_info_get_value_string(128) = -1"),
                 Log(ERROR, "Unable to read SW version from system-info"),
                 LogFrom("onCreate", ERROR, kNoVersion)});
}

TEST_F(SoftwareVersion, ThatIsMalformedDoesNotStopTheStart)
{
    platform().softwareVersion = "MODEL";

    EXPECT_TRUE(manager->getIsReady(true));

    expectTexts(logTexts(),
                {"getSWVersionString: Wrong string format - lack of dash: MODEL", kNoVersion});
}
