// Reading a module's information file.

#include <json/json.h>

#include <string>

#include "fw-update-symbol.h"
#include "support/device-fixture.h"

namespace quillon::test {
namespace {

using namespace fakes;

constexpr char kPath[] = "/opt/media/info.json";

class LoadInformation : public DeviceTest
{
protected:
    bool load(const std::string& text)
    {
        writeFile(kPath, text);
        return module.loadInformation(kPath);
    }

    // Something to be kept or replaced.
    void loadEarlierInformation()
    {
        ASSERT_TRUE(load(R"({"version": "1.0", "crc": 11, "expected_time": 22})"));
        clear();
    }

    void expectInformation(const std::string& version, std::uint32_t crc, std::uint32_t seconds)
    {
        EXPECT_EQ(module.getInformation().version, version);
        EXPECT_EQ(module.getInformation().crc, crc);
        EXPECT_EQ(module.getInformation().expectedSeconds, seconds);
        EXPECT_EQ(module.getInformation().reserved1, "");
        EXPECT_EQ(module.getInformation().reserved2, "");
    }

    void expectCrcMessage(const std::string& reason)
    {
        expectSteps(
            {LogFrom("loadInformation", ERROR,
                     "Error: json crc read fail error:" + reason + " (/opt/media/info.json)\n")});
    }

    void expectParseMessage()
    {
        expectSteps({LogFrom("loadInformation", ERROR,
                             "Error: json loadInformation fail.(/opt/media/info.json)\n")});
    }

    FWUpdateSymbol module{"alpha"};
};

TEST_F(LoadInformation, TakesAllThreeValues)
{
    EXPECT_TRUE(load(R"({"version": "2.5", "crc": 4294967295, "expected_time": 40, "more": []})"));

    expectInformation("2.5", 4294967295U, 40);
    expectSteps({});
}

TEST_F(LoadInformation, AnEmptyObjectGivesTheDefaults)
{
    loadEarlierInformation();

    EXPECT_TRUE(load("{}"));

    expectInformation("0000", 0, 300);
}

TEST_F(LoadInformation, ANegativeCrcFailsAfterTheVersionWasTaken)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(R"({"version": "2.5", "crc": -1, "expected_time": 40})"));

    expectInformation("2.5", 11, 22);
    expectCrcMessage("LargestInt out of UInt range");
}

TEST_F(LoadInformation, ACrcThatIsTextFails)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(R"({"crc": "abc"})"));

    expectInformation("0000", 11, 22);
    expectCrcMessage("Value is not convertible to UInt.");
}

TEST_F(LoadInformation, ACrcOfMoreThan32BitsFails)
{
    EXPECT_FALSE(load(R"({"crc": 4294967296})"));

    expectTexts(logTexts(), {like("Error: json crc read fail error:*")});
}

TEST_F(LoadInformation, ACrcThatIsAListFails)
{
    EXPECT_FALSE(load(R"({"crc": [1]})"));

    expectTexts(logTexts(), {like("Error: json crc read fail error:*")});
}

TEST_F(LoadInformation, AnExpectedTimeThatIsTextFailsWithTheCrcMessage)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(R"({"version": "2.5", "crc": 33, "expected_time": "soon"})"));

    expectInformation("2.5", 33, 22);
    expectCrcMessage("Value is not convertible to UInt.");
}

TEST_F(LoadInformation, ANegativeExpectedTimeFails)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(R"({"expected_time": -1})"));

    expectInformation("0000", 0, 22);
    expectCrcMessage("LargestInt out of UInt range");
}

TEST_F(LoadInformation, AFileThatIsNotJsonFailsAndChangesNothing)
{
    loadEarlierInformation();

    EXPECT_FALSE(load("version=2.5"));

    expectInformation("1.0", 11, 22);
    expectParseMessage();
}

TEST_F(LoadInformation, AnEmptyFileFails)
{
    EXPECT_FALSE(load(""));

    expectParseMessage();
}

TEST_F(LoadInformation, AMissingFileFailsAndChangesNothing)
{
    loadEarlierInformation();

    EXPECT_FALSE(module.loadInformation("/opt/media/none.json"));

    expectInformation("1.0", 11, 22);
    expectSteps({Log(ERROR, "Error: json loadInformation fail.(/opt/media/none.json)\n")});
}

TEST_F(LoadInformation, ADirectoryFails)
{
    EXPECT_FALSE(module.loadInformation("/opt/media"));

    expectSteps({Log(ERROR, "Error: json loadInformation fail.(/opt/media)\n")});
}

class LoadInformationTopLevel : public LoadInformation,
                                public ::testing::WithParamInterface<const char*>
{
};

TEST_P(LoadInformationTopLevel, ThatIsNoObjectCountsAsAParseFailure)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(GetParam()));

    expectInformation("1.0", 11, 22);
    expectParseMessage();
}

INSTANTIATE_TEST_SUITE_P(Values, LoadInformationTopLevel,
                         ::testing::Values("[]", "[{}]", "7", "\"text\"", "null", "true"),
                         [](const auto& value) { return "Value" + std::to_string(value.index); });

TEST_F(LoadInformation, AFileThatTheParserRaisesOnCountsAsAParseFailure)
{
    loadEarlierInformation();

    EXPECT_FALSE(load(R"({"deep": )" + std::string(5000, '[') + std::string(5000, ']') + "}"));

    expectInformation("1.0", 11, 22);
    expectParseMessage();
}

TEST_F(LoadInformation, AVersionThatIsAListOrAnObjectRaises)
{
    loadEarlierInformation();

    EXPECT_THROW(load(R"({"version": [2, 5]})"), Json::Exception);
    EXPECT_THROW(load(R"({"version": {"major": 2}})"), Json::Exception);

    expectInformation("1.0", 11, 22);
    expectSteps({});
}

TEST_F(LoadInformation, AVersionThatIsANumberOrNothingBecomesText)
{
    EXPECT_TRUE(load(R"({"version": 7})"));
    expectInformation("7", 0, 300);

    EXPECT_TRUE(load(R"({"version": null})"));
    expectInformation("", 0, 300);
}

TEST_F(LoadInformation, CommentsAreAllowedAsTheParserIsLeftAtItsDefaults)
{
    EXPECT_TRUE(load("/* made by hand */ {\"version\": \"2.5\"} // end"));

    expectInformation("2.5", 0, 300);
}

}  // namespace
}  // namespace quillon::test
