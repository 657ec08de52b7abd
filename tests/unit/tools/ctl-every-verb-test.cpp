// Every verb, for programs that call it: it writes the objects that the manual page describes, and
// exits with a status that the page lists. The verbs are those that the program's own help names,
// so one that is added has to be tried here.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <semaphore.h>

#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <sstream>

#include "support/files.h"
#include "support/texts.h"
#include "unit/client/fake-service.h"
#include "unit/tools/ctl-modules-device.h"
#include "unit/tools/ctl-vocabulary.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::TextRule;
using quillon::test::writeFile;
using Line = std::vector<std::string>;

constexpr const char* kStick = "/tmp/stick";

class EveryVerb : public CtlModules
{
public:
    // What a verb meets.
    void nothing() {}
    void aService()
    {
        service().answerAfterStart({{MQ_RESULT_RUNNING, 37}, {MQ_RESULT_DONE, 100}});
        service().serve();
    }
    void aServiceThatFails()
    {
        service().answerBeforeStart({{MQ_RESULT_FAILED, 11}});
        service().serve();
    }
    void aServiceThatUpdates()
    {
        service().answerBeforeStart({{MQ_RESULT_RUNNING, 37}});
        service().serve();
    }
    void aServiceWithoutNews()
    {
        service().answerEstimate(MQ_RESULT_REFUSED, 0);
        service().serve();
    }
    void aHistory()
    {
        writeFile("/var/lib/quillon/history/history.jsonl",
                  R"({"event":"began","clock":1,"at":1795407000,"pid":1,"directory":"/tmp/stick/"}
{"event":"started","clock":2,"module":"alpha","offered":"2.0","seconds":3}
{"event":"finished","clock":5,"module":"alpha","offered":"2.0","seconds":3,"result":-1,"reason":"no-image"}
{"event":"ended","clock":6,"result":-1}
)");
    }
    void records() { std::filesystem::create_directories("/run/quillon/run"); }
    void aModule()
    {
        install("alpha", "need=1\n");
        offer("alpha");
    }
    void aDamagedImage()
    {
        install("alpha", "need=1\n");
        offerWithWrongChecksum("alpha");
    }
    void somebodyWithTheSemaphore() { sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 0); }

protected:
    EveryVerb() { writeFile(std::string(kStick) + "/lamp.bin", ""); }

private:
    FakeService& service() { return service_ ? *service_ : service_.emplace(); }

    std::optional<FakeService> service_;
};

struct Trial
{
    Line line;  ///< a verb, and what it takes
    void (EveryVerb::*meets)();
    int exitCode;
    std::vector<TextRule> events;  ///< what it writes; repetitions of one count once
};

std::ostream& operator<<(std::ostream& stream, const Trial& trial)
{
    for (const std::string& word : trial.line) {
        stream << word << ' ';
    }
    return stream << trial.exitCode;
}

const std::vector<Trial>& trials()
{
    using V = EveryVerb;
    static const std::vector<Trial> kTrials = {
        {{"update", kStick}, &V::nothing, 3, {"error"}},
        {{"update", kStick}, &V::aServiceThatUpdates, 8, {"error"}},
        {{"update", kStick}, &V::aServiceWithoutNews, 7, {"checking", "estimate"}},
        {{"update", kStick},
         &V::aService,
         0,
         {"checking", "estimate", "started", "progress", "finished", "looking-again",
          "looked-again"}},
        {{"check", "/tmp/nowhere"}, &V::nothing, 2, {"error"}},
        {{"check", kStick}, &V::nothing, 3, {"error"}},
        {{"check", kStick}, &V::aServiceWithoutNews, 7, {"checking", "estimate"}},
        {{"check", kStick}, &V::aService, 0, {"checking", "estimate"}},
        {{"check", kStick},
         &V::aServiceThatFails,
         0,
         {"earlier-update", "looking-again", "looked-again", "checking", "estimate"}},
        {{"estimate", kStick}, &V::nothing, 3, {"error"}},
        {{"estimate", kStick}, &V::aService, 0, {"checking", "estimate"}},
        {{"progress"}, &V::nothing, 3, {"error"}},
        {{"progress"}, &V::aServiceThatUpdates, 0, {"state"}},
        {{"progress"}, &V::aServiceThatFails, 6, {"state", "looking-again", "looked-again"}},
        {{"progress", "--follow"}, &V::nothing, 9, {"error"}},
        {{"progress", "--follow"}, &V::records, 0, {"state"}},
        {{"stop"}, &V::nothing, 3, {"error"}},
        {{"stop"}, &V::aService, 0, {"stop-sent"}},
        {{"history"}, &V::nothing, 0, {}},
        {{"history", "--plot", "/tmp/plot.svg"}, &V::aHistory, 0, {"past-update", "plotted"}},
        {{"history", "--plot", kStick}, &V::aHistory, 2, {"past-update", "error"}},
        {{"doctor"}, &V::nothing, 21, {"finding", "examined"}},
        {{"modules", "list"}, &V::nothing, 0, {"modules"}},
        {{"modules", "list"}, &V::aModule, 0, {"modules"}},
        {{"modules", "check"}, &V::nothing, 7, {"modules-check"}},
        {{"modules", "check", "--source", "system"}, &V::aModule, 0, {"modules-check"}},
        {{"modules", "check", "--source", "system"}, &V::aDamagedImage, 7, {"modules-check"}},
        {{"modules", "update", "alpha"}, &V::nothing, 10, {"error"}},
        {{"modules", "update", "--all", "--source", "system"}, &V::aModule, 0, {"modules-update"}},
        {{"modules", "update", "alpha", "--source", "system"},
         &V::aDamagedImage,
         6,
         {"modules-update"}},
        {{"modules", "version", "alpha"}, &V::nothing, 10, {"error"}},
        {{"modules", "version", "alpha"}, &V::aModule, 0, {"module-version"}},
        {{"modules", "progress", "alpha"}, &V::nothing, 10, {"error"}},
        {{"modules", "progress", "alpha"}, &V::aModule, 0, {"module-progress"}},
        {{"modules", "download"}, &V::nothing, 0, {"modules-download"}},
        {{"modules", "download"}, &V::aModule, 14, {"modules-download"}},
        {{"modules", "unlock"}, &V::nothing, 0, {"modules-unlock"}},
        {{"modules", "unlock"}, &V::somebodyWithTheSemaphore, 8, {"error"}},
    };
    return kTrials;
}

/// Every verb of the program, in words: "progress", "modules list".
Words allVerbs()
{
    Words verbs = verbsOf({});
    for (const std::string& verb : verbsOf({"modules"})) {
        verbs.insert("modules " + verb);
    }
    verbs.erase("modules");
    return verbs;
}

std::string verbIn(const Line& line)
{
    return line[0] == "modules" ? line[0] + " " + line[1] : line[0];
}

std::vector<Json::Value> objectsIn(const std::string& text)
{
    std::vector<Json::Value> objects;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream document(line);
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), document,
                                          &objects.emplace_back(), nullptr))
            << line;
    }
    return objects;
}

Json::ValueType typeOf(const std::string& member)
{
    static const std::map<Json::ValueType, Words> kOthers = {
        {Json::arrayValue, {"modules", "holders", "stopped"}},
        {Json::booleanValue, {"updateNeeded", "released", "downloaded"}},
        {Json::intValue,
         {"exitCode", "percent", "secondsLeft", "expectedSeconds", "at", "result", "process",
          "errors", "warnings", "notes"}},
        {Json::realValue, {"seconds"}},
    };
    for (const auto& [type, members] : kOthers) {
        if (members.count(member) != 0) {
            return type;
        }
    }
    return Json::stringValue;
}

bool isOf(Json::ValueType type, const Json::Value& value)
{
    return type == Json::intValue || type == Json::realValue ? value.isNumeric() && !value.isBool()
                                                             : value.type() == type;
}

/// That each member is one that the page describes for this event, and of its one type.
void expectDescribed(const Json::Value& object, const std::string& event, const Words& described)
{
    for (const std::string& member : object.getMemberNames()) {
        EXPECT_EQ(described.count(member), 1U) << member << " of " << event;
        EXPECT_TRUE(isOf(typeOf(member), object[member])) << member << " of " << event;
        for (const Json::Value& inner : object[member].isArray() ? object[member] : Json::Value()) {
            expectDescribed(inner, event, described);
        }
    }
}

/// The words in quotes of an event's paragraph, and of those that it refers to.
Words describedIn(const std::string& page, const std::string& event)
{
    const std::string paragraph = between(page, ".It " + event + "\n", "\n.It ");
    Words words = {"event"};
    words.merge(allMatches(paragraph, "^\\.(?:Dq|Po Dq) ([A-Za-z]+)"));
    for (const std::string& other : allMatches(paragraph, "as in\n\\.Dq ([a-z-]+)")) {
        words.merge(describedIn(page, other));
    }
    if (paragraph.find("as above") != std::string::npos) {
        words.merge(describedIn(page, "modules"));
    }
    return words;
}

class EveryTrial : public EveryVerb, public testing::WithParamInterface<Trial>
{
};

TEST_P(EveryTrial, WritesAndExitsAsTheManualSays)
{
    const Trial& trial = GetParam();
    (this->*trial.meets)();
    Line line = {"--json"};
    line.insert(line.end(), trial.line.begin(), trial.line.end());

    const ModulesResult result = splitLog(runCtl(line));

    EXPECT_EQ(result.exitCode, trial.exitCode) << result.out << result.log;
    EXPECT_EQ(result.err, "");
    const std::string page = between(manualPage(), ".Sh JSON OUTPUT", ".Sh ");
    std::vector<std::string> events;
    for (const Json::Value& object : objectsIn(result.out)) {
        const std::string event = object["event"].asString();
        if (events.empty() || events.back() != event) {
            events.push_back(event);
        }
        expectDescribed(object, event, describedIn(page, event));
        if (object.isMember("exitCode")) {
            EXPECT_EQ(object["exitCode"], trial.exitCode) << event;
        }
    }
    expectTexts(events, trial.events);
    const std::string statuses = between(manualPage(), ".Sh EXIT STATUS", ".Sh ");
    EXPECT_EQ(allMatches(statuses, "^\\.It ([0-9]+)").count(std::to_string(result.exitCode)), 1U);
}

INSTANTIATE_TEST_SUITE_P(Ctl, EveryTrial, testing::ValuesIn(trials()));

TEST_F(EveryVerb, OfTheProgramIsTriedHere)
{
    Words tried;
    for (const Trial& trial : trials()) {
        tried.insert(verbIn(trial.line));
    }
    EXPECT_EQ(tried, allVerbs());
}

TEST_F(EveryVerb, RefusesAnOptionThatItDoesNotHave)
{
    for (const std::string& verb : allVerbs()) {
        std::istringstream words("--json " + verb + " --nonsense");
        const CtlResult result = runCtl(Line(std::istream_iterator<std::string>(words), {}));

        EXPECT_EQ(result.exitCode, 2) << verb;
        const std::vector<Json::Value> objects = objectsIn(result.out);
        ASSERT_EQ(objects.size(), 1U) << verb;
        EXPECT_EQ(objects[0]["event"], "error") << verb;
        EXPECT_EQ(objects[0]["exitCode"], 2) << verb;
    }
}

}  // namespace
