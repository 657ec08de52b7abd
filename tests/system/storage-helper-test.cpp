// The real quillon-storage, started for each connection as a service manager does it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <regex>

#include "base/fd.h"
#include "platform/secure-storage.h"
#include "support/open-way.h"
#include "support/process.h"
#include "support/texts.h"
#include "tools/quillon-image/provisioning-package.h"
#include "unit/storage/listener.h"
#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace quillon::test {
namespace {

constexpr char kDirectory[] = "/var/lib/quillon/secure-storage";
constexpr char kLog[] = "/var/lib/quillon/storage-helper.log";
constexpr char kOutput[] = "/var/lib/quillon/storage-helper.out";
constexpr uid_t kUser = 1234;
constexpr gid_t kGroup = 2345;

/// Runs the helper to its end. @return its exit status, -1 when a signal ended it
int runHelper(int connection, const std::vector<std::string>& options)
{
    std::vector<std::string> words = {"quillon-storage"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(connection, STDIN_FILENO);
        dup2(open(kOutput, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
        dup2(open(kLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
        execv(QUILLON_STORAGE_PROGRAM, arguments.data());
        _exit(126);
    }
    return statusOf(child);
}

/// @return the item; the result of a failure
std::string readItem(const char* item)
{
    ss_credential credential = {};
    ss_init_credential(&credential, 0, 0, 0, 0, 0, 1, 0);
    unsigned char* data = nullptr;
    size_t size = 0;
    const int result = ss_read(&data, &size, 0, 0, item, &credential, 33);
    if (result != 0) {
        return "result " + std::to_string(result);
    }
    std::string text(reinterpret_cast<char*>(data), size);
    ss_free_buffer(data);
    return text;
}

/// @return what work returns in a process of another user, 126 when there is no other user here
int asUser(const std::function<int()>& work)
{
    return inChildAs(kUser, kGroup, {}, work);
}

class StorageHelper : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("JOURNAL_STREAM");
        fs::create_directories(kDirectory);
        fs::permissions(kDirectory, fs::perms(0700));
        trustProvisioning("a");
    }

    void TearDown() override
    {
        fs::remove_all(kDirectory);
        fs::remove(kLog);
        fs::remove(kOutput);
    }

    void store(const std::string& item, const std::string& bytes)
    {
        writeFile(std::string(kDirectory) + "/" + item, bytes);
        fs::permissions(std::string(kDirectory) + "/" + item, fs::perms(0600));
    }

    Listener::Serve helperWith(const std::vector<std::string>& options)
    {
        return [this, options](int connection) {
            const int status = runHelper(connection, options);
            const std::lock_guard<std::mutex> lock(mutex_);
            statuses_.push_back(status);
        };
    }

    std::vector<int> statuses()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return statuses_;
    }

private:
    std::mutex mutex_;
    std::vector<int> statuses_;
};

TEST_F(StorageHelper, ReadsForRoot)
{
    const std::string largest(65536, 'k');
    store("quillon", largest);
    {
        const Listener listener(helperWith({}));
        EXPECT_EQ(readItem("quillon"), largest);
        EXPECT_EQ(readItem("missing"), "result 5");
    }
    EXPECT_THAT(statuses(), ElementsAre(0, 0));
    expectText(readAll(kLog), like("*asked for quillon: 0*"));
    expectNoText(readAll(kLog), like("*kkkk*"));
}

TEST_F(StorageHelper, ProvisionsAUserWhoCanReachNothingByHimself)
{
    const std::string package = "/var/lib/quillon/package";
    fs::copy_file(keyPath("a", kProvisioningPackageFile), package);
    fs::permissions(package, fs::perms(0644));
    const Listener listener(helperWith({"--user", std::to_string(kUser)}));
    fs::permissions(QUILLON_STORAGE_SOCKET, fs::perms(0666));
    const int installed =
        asUser([&package] { return sdp_install_from_file(package.c_str(), 2, 0); });
    if (installed == 99) {
        GTEST_SKIP() << "there is only one user here";
    }
    if (installed == 8) {
        GTEST_SKIP() << "systemd-creds cannot seal here: " << readAll(kLog);
    }
    EXPECT_EQ(installed, 0) << readAll(kLog);
    const std::string key = readAll(keyPath("a", kImageKeyFile));
    EXPECT_EQ(asUser([&key] { return readItem("quillon") == key ? 0 : 1; }), 0);
    EXPECT_EQ(asUser([&package] { return sdp_install_from_file(package.c_str(), 2, 0); }), 2);
    EXPECT_EQ(asUser([] { return access(kDirectory, X_OK) == 0 ? 1 : 0; }), 0);
    fs::remove(package);
}

TEST_F(StorageHelper, ServesAGroupByItsOption)
{
    store("quillon", "key");
    const Listener listener(helperWith({"-g", std::to_string(kGroup)}));
    fs::permissions(QUILLON_STORAGE_SOCKET, fs::perms(0666));
    EXPECT_THAT(asUser([] { return readItem("quillon") == "key" ? 0 : 1; }),
                testing::AnyOf(0, 126));
}

TEST_F(StorageHelper, TurnsEverybodyElseAwayWhateverTheSocketsMode)
{
    store("quillon", "key");
    {
        const Listener listener(helperWith({"--user", "1", "--group", "1"}));
        fs::permissions(QUILLON_STORAGE_SOCKET, fs::perms(0666));
        const int read = asUser([] { return readItem("quillon") == "result 2" ? 0 : 1; });
        if (read == 99) {
            GTEST_SKIP() << "there is only one user here";
        }
        EXPECT_EQ(read, 0);
    }
    EXPECT_THAT(statuses(), ElementsAre(0));
    expectText(readAll(kLog), like("*refused: user 1234 may not ask*"));
}

TEST_F(StorageHelper, RefusesToRunByHandOrForAnotherKindOfSocket)
{
    const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(runHelper(nothing.get(), {}), 1);
    expectText(readAll(kLog), like("*standard input is not a client's connection*"));
    const int refusal = openWayTo(QUILLON_STORAGE_PROGRAM) ? 1 : 126;
    EXPECT_THAT(asUser([&nothing] { return runHelper(nothing.get(), {}); }),
                testing::AnyOf(refusal, 126));
}

TEST_F(StorageHelper, InstallsAPackageForRootByHand)
{
    const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    const std::string package = "/var/lib/quillon/package";
    const auto install = [&] { return runHelper(nothing.get(), {"--install", package}); };
    const UniqueKey key = loadPrivateKey(keyPath("a", kProvisioningKeyFile));
    const Certificates certificates =
        loadCertificateFile(keyPath("a", kProvisioningCertificateFile));
    writeFile(package, encodeProvisioningPackage("", "", key.get(), certificates, {{"tuner", 7}}));

    EXPECT_EQ(install(), 0) << readAll(kLog);
    EXPECT_EQ(readAll(QUILLON_SECURITY_FLOORS), "floor.tuner = 7\n");
    EXPECT_EQ(install(), 0) << "once more: nothing is left to do";

    writeFile(package, "noise");
    EXPECT_EQ(install(), 1);
    expectText(readAll(kLog), like("*" + package + " is not a provisioning package*"));
    fs::remove(package);
    EXPECT_EQ(install(), 1);
    expectText(readAll(kLog), like("*" + package + ": cannot be read: No such file*"));
    EXPECT_THAT(asUser(install), testing::AnyOf(1, 126));
    fs::remove_all(fs::path(QUILLON_SECURITY_FLOORS).parent_path());
}

TEST_F(StorageHelper, TakesNoOptionsThatMakeNoSense)
{
    for (const std::vector<std::string>& options : {std::vector<std::string>{"--user"},
                                                    {"--user", "no-such-user"},
                                                    {"--user", "4294967295"},
                                                    {"--group", "no-such-group"},
                                                    {"--group", "-1"},
                                                    {"--group", ""},
                                                    {"--other"},
                                                    {"something"}}) {
        EXPECT_EQ(runHelper(-1, options), 2) << options.front();
    }
    const std::string log = readAll(kLog);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 8) << log;
}

TEST_F(StorageHelper, HasAManualPageWithEveryOption)
{
    ASSERT_EQ(runHelper(-1, {"--version"}), 0);
    expectText(readAll(kOutput), like("quillon-storage *"));
    ASSERT_EQ(runHelper(-1, {"--help"}), 0);
    const std::string help = readAll(kOutput);
    const std::string manual = readAll(MANUAL_PAGE);
    const std::regex option("--([a-z]+)");
    int options = 0;
    for (std::sregex_iterator match(help.begin(), help.end(), option), end; match != end; ++match) {
        expectText(manual, like("* , Fl -" + (*match)[1].str() + "*"));
        ++options;
    }
    EXPECT_GE(options, 4);
    expectText(manual, like("*" + std::string(QUILLON_STORAGE_SOCKET) + "*"));
}

}  // namespace
}  // namespace quillon::test
