// Two control layers and an update from a stick at the same time: at most one guarded update runs
// on the device, whoever makes it. The modules themselves tell when they flash.

#include <gmock/gmock.h>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/checksum.h"
#include "system/system-test.h"
#include "unit/tools/ctl-modules-device.h"
#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr const char* kTrace = "/tmp/quillon-test-trace.log";
constexpr int kRounds = QUILLON_SANITIZED != 0 ? 20 : 100;

struct Step
{
    std::string what;
    std::string name;
    int process = 0;
};

std::vector<Step> traceOf(const std::string& path)
{
    std::vector<Step> steps;
    std::ifstream file(path);
    for (Step step; file >> step.what >> step.name >> step.process;) {
        steps.push_back(step);
    }
    return steps;
}

class Contention : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        for (const std::string& name : allModules()) {
            removeModule(name);
        }
        for (const std::string& name : traced()) {
            fs::copy_file(TRACED_MODULE, kModules + name + ".so");
            putImage(name, "2.0", name);
            const std::string directory = "/lib/firmware/ext/" + name + "/";
            fs::create_directories(directory);
            writeFile(directory + name + ".bin", name);
            const unsigned int crc =
                imageChecksum(0, reinterpret_cast<const unsigned char*>(name.data()), name.size());
            writeFile(directory + "info.json", R"({"version":"2.0","crc":)" + std::to_string(crc) +
                                                   R"(,"expected_time":1})");
        }
    }

    static const std::vector<std::string>& traced()
    {
        static const std::vector<std::string> names{"one", "two", "three"};
        return names;
    }

    static void expectAllUpdated(CtlProgram& layer)
    {
        const CtlResult result = layer.finish();
        // 13: on a busy machine an update that quick may escape the registry, which then waits for
        // it to the end of its time.
        EXPECT_THAT(result.exitCode, testing::AnyOf(0, 13)) << result.out << result.err;
    }
};

TEST_F(Contention, NeverFlashesTwoGuardedModulesAtOnce)
{
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const std::vector<std::string> all = {"modules", "update", "--all", "--source", "system"};

    for (int round = 0; round < kRounds; ++round) {
        CtlProgram first(all);
        CtlProgram second(all);
        EXPECT_EQ(update(), MQ_RESULT_DONE);
        expectAllUpdated(first);
        expectAllUpdated(second);
        ASSERT_FALSE(HasFailure()) << "in round " << round;
    }

    int guarded = 0;
    int fromStick = 0;
    int changes = 0;
    const Step* running = nullptr;
    int last = 0;
    const std::vector<Step> steps = traceOf(kTrace);
    for (const Step& step : steps) {
        if (step.what == "stick") {
            ++fromStick;
        } else if (step.what == "begin") {
            ASSERT_EQ(running, nullptr) << step.name << " of " << step.process << " begins within "
                                        << running->name << " of " << running->process;
            running = &step;
            changes += step.process != last ? 1 : 0;
            last = step.process;
            ++guarded;
        } else {
            ASSERT_NE(running, nullptr);
            ASSERT_EQ(step.name, running->name);
            ASSERT_EQ(step.process, running->process);
            running = nullptr;
        }
    }
    const int modules = static_cast<int>(traced().size());
    EXPECT_EQ(guarded, 2 * kRounds * modules);
    EXPECT_EQ(fromStick, kRounds * modules);
    EXPECT_GT(changes, 2 * kRounds) << "the control layers never met";
}

}  // namespace
}  // namespace quillon::test
