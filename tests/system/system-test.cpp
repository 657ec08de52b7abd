#include "system/system-test.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <utility>

#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr const char* kKeyDirectory = "/var/lib/quillon/secure-storage";
constexpr const char* kTestSettings = "/etc/quillon-test/";
constexpr const char* kSettings = "/etc/quillon/examples/";

std::string moduleDirectory(const std::string& name)
{
    return "/var/lib/quillon/examples/" + name + "/";
}

}  // namespace

void SystemTest::SetUp()
{
    writeFile(kLabellingReady, "");
    storeKey("a");
    trust("a");
    fs::copy_file(VERIFIER_LIBRARY, kVerifier, fs::copy_options::overwrite_existing);
    fs::create_directories(kStick);
    for (const std::string& name : allModules()) {
        installModule(name);
    }
}

void SystemTest::TearDown()
{
    channel.reset();
    daemon.end();
}

const std::vector<std::string>& SystemTest::allModules()
{
    static const std::vector<std::string> names{"tuner", "panel", "camera"};
    return names;
}

void SystemTest::installModule(const std::string& name)
{
    fs::create_directories(kModules);
    fs::copy_file(std::string(EXAMPLE_MODULES) + "/" + name + ".so", kModules + name + ".so",
                  fs::copy_options::overwrite_existing);
    setModule(name, 0, 5);
    fs::create_directories(moduleDirectory(name));
    writeFile(moduleDirectory(name) + "version", "1.0");
    writeFile(moduleDirectory(name) + "firmware.bin", "as delivered");
}

void SystemTest::removeModule(const std::string& name)
{
    fs::remove(kModules + name + ".so");
}

void SystemTest::installTestModule(const std::string& name, const std::string& settings)
{
    const std::string library = kModules + name + ".so";
    if (!fs::exists(library)) {
        fs::copy_file(TEST_MODULE, library);
        fs::remove("/tmp/quillon-test-" + name + ".log");
    }
    fs::create_directories(kTestSettings);
    writeFile(kTestSettings + name + ".conf", settings);
}

void SystemTest::setModule(const std::string& name, long bytesPerSecond, int expectedSeconds)
{
    fs::create_directories(kSettings);
    writeFile(kSettings + name + ".conf", "speed=" + std::to_string(bytesPerSecond) +
                                              "\nexpected_time=" + std::to_string(expectedSeconds) +
                                              "\n");
}

std::string SystemTest::flashed(const std::string& name)
{
    return readAll(moduleDirectory(name) + "firmware.bin");
}

std::string SystemTest::version(const std::string& name)
{
    const std::string text = readAll(moduleDirectory(name) + "version");
    return text.substr(0, text.find('\n'));
}

void SystemTest::storeKey(const std::string& maker)
{
    fs::create_directories(kKeyDirectory);
    const std::string item = std::string(kKeyDirectory) + "/quillon";
    fs::copy_file(keyPath(maker, kImageKeyFile), item, fs::copy_options::overwrite_existing);
    ::chmod(kKeyDirectory, 0700);
    ::chmod(item.c_str(), 0600);
}

void SystemTest::removeKey()
{
    fs::remove_all(kKeyDirectory);
}

void SystemTest::removeVerifier()
{
    fs::remove(kVerifier);
}

std::string SystemTest::imagePath(const std::string& name)
{
    return kStick + name + ".bin";
}

void SystemTest::putImage(const std::string& name, const std::string& version,
                          const std::string& payload, const std::string& maker)
{
    makeImage(imagePath(name), maker, version, payload);
}

void SystemTest::putImagesForAll(const std::string& version, std::size_t payloadSize)
{
    for (const std::string& name : allModules()) {
        payloads_[name] = name + version + randomBytes(payloadSize, 1);
        putImage(name, version, payloads_[name]);
    }
}

std::string SystemTest::payloadOf(const std::string& name) const
{
    return payloads_.at(name);
}

std::string SystemTest::randomBytes(std::size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() & 0xFFU);
    }
    return bytes;
}

void SystemTest::startDaemon()
{
    ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
    channel.emplace();
    channel->drain();
    const auto reply = channel->setPath(kStick);
    ASSERT_TRUE(reply) << "no reply";
    ASSERT_EQ(reply->result, MQ_RESULT_ACCEPTED);
}

std::optional<int> SystemTest::start()
{
    // Commands are taken one after another, so a reply to the second tells that the first has none.
    if (!channel->send(Channel::record(MQ_COMMAND_START)) ||
        !channel->send(Channel::record(MQ_COMMAND_PROGRESS))) {
        return std::nullopt;
    }
    const auto first = channel->receive();
    if (!first || first->result == MQ_RESULT_NOT_RUNNING) {
        return std::nullopt;
    }
    firstProgress_ = channel->receive();
    return first->result;
}

MQData SystemTest::estimate()
{
    const auto reply = channel->ask(MQ_COMMAND_TIME);
    if (!reply) {
        ADD_FAILURE() << "no reply to the time query";
        return {};
    }
    return *reply;
}

MQData SystemTest::waitForRun(std::chrono::milliseconds timeout)
{
    std::optional<MQData> reply = std::exchange(firstProgress_, std::nullopt);
    const bool over = eventually(
        [&] {
            if (!reply || reply->result == MQ_RESULT_RUNNING) {
                reply = channel->ask(MQ_COMMAND_PROGRESS);
            }
            return !reply || reply->result != MQ_RESULT_RUNNING;
        },
        timeout);
    EXPECT_TRUE(over && reply) << "the run does not end";
    return reply.value_or(MQData{});
}

int SystemTest::update()
{
    if (estimate().result != MQ_RESULT_ACCEPTED || start() != MQ_RESULT_ACCEPTED) {
        return MQ_RESULT_REFUSED;
    }
    return waitForRun().result;
}

void SystemTest::expectAllUpdatedTo(const std::string& wanted)
{
    for (const std::string& name : allModules()) {
        EXPECT_EQ(version(name), wanted) << name;
        EXPECT_TRUE(flashed(name) == payloadOf(name)) << name << " did not get its payload";
    }
}

}  // namespace quillon::test
