// What quillon.service runs around the daemon, against users who have nothing to do with it.

#include <gmock/gmock.h>

#include <fcntl.h>
#include <grp.h>
#include <mqueue.h>
#include <pwd.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "base/fd.h"
#include "platform/events.h"
#include "support/open-way.h"
#include "support/process.h"
#include "support/texts.h"
#include "system/system-test.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Optional;

constexpr uid_t kStranger = 1234;
constexpr const char* kUser = "daemon";
constexpr const char* kQueueGroup = "games";
constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr const char* kResumeEvent = "/tmp/.ignore_resume";
constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";
constexpr const char* kPrecious = "/tmp/precious";

/// The real quillon-unit, with the environment's additions in front: "NAME=value NAME=value".
Result unit(const std::string& arguments, const std::string& environment = "")
{
    return runInShell("env -u JOURNAL_STREAM " + environment + " " QUILLON_UNIT_PROGRAM " " +
                      arguments);
}

Result prepare(const std::string& options = "")
{
    return unit("prepare " + options + kUser);
}

constexpr const char* kEndedByItself = "SERVICE_RESULT=success EXIT_CODE=exited EXIT_STATUS=0";

/// Runs something in a process of another user's. @return whether it said yes
bool asUser(uid_t user, gid_t group, const std::vector<gid_t>& others,
            const std::function<bool()>& body)
{
    return inChildAs(user, group, others, [&body] { return body() ? 0 : 1; }) == 0;
}

bool asStranger(const std::function<bool()>& body)
{
    return asUser(kStranger, kStranger, {}, body);
}

bool asServiceUser(const std::function<bool()>& body)
{
    return asUser(::getpwnam(kUser)->pw_uid, ::getpwnam(kUser)->pw_gid, {}, body);
}

bool makeFile(const char* path)
{
    const int file = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return file != -1 && ::close(file) == 0;
}

/// Whether nobody holds the semaphore, and it can be taken.
bool canTakeTurn()
{
    sem_t* semaphore = ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1);
    return semaphore != SEM_FAILED && ::sem_trywait(semaphore) == 0 && ::sem_post(semaphore) == 0;
}

std::string clientLock()
{
    struct stat status = {};
    const bool isShared = ::stat("/run/lock", &status) == 0 && (status.st_mode & S_IWOTH) != 0;
    return isShared ? "/run/lock/quillon-client.lock" : "/tmp/quillon-client.lock";
}

bool canLockClients()
{
    const int file = ::open(clientLock().c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status = {};
    return file != -1 && ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
           ::flock(file, LOCK_EX | LOCK_NB) == 0;
}

class AroundTheService : public SystemTest
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0 || !asStranger([] { return true; })) {
            GTEST_SKIP() << "there are no other users here";
        }
        SystemTest::SetUp();
        for (const std::string& path :
             {std::string(kSemaphoreFile), std::string(kResumeEvent), std::string(kUpdateList),
              std::string(kReadyEvent), std::string(kLifeMarker), clientLock()}) {
            fs::remove_all(path);
        }
        fs::permissions("/tmp", fs::perms(01777));
        ::umask(0);
        std::ofstream(kPrecious) << "precious";
    }
};

TEST_F(AroundTheService, ControlLayersTakeTurnsWhateverAStrangerHasMadeFirst)
{
    const std::vector<std::function<bool()>> traps = {
        [] { return makeFile(kSemaphoreFile); },
        [] { return ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0666, 0) != SEM_FAILED; },
        [] { return ::sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 1) != SEM_FAILED; },
        [] { return ::symlink(kPrecious, kSemaphoreFile) == 0; }};
    for (const auto& trap : traps) {
        fs::remove_all(kSemaphoreFile);
        ASSERT_TRUE(asStranger(trap));

        const Result prepared = prepare();

        ASSERT_EQ(prepared.status, 0) << prepared.err;
        expectText(prepared.err, like("*made it anew*"));
        EXPECT_TRUE(asServiceUser(canTakeTurn));
        EXPECT_TRUE(asUser(0, 0, {}, canTakeTurn)) << "root";
    }
}

TEST_F(AroundTheService, ClientsTakeTurnsWhateverAStrangerHasMadeFirst)
{
    const std::string lock = clientLock();
    const std::vector<std::function<bool()>> traps = {
        [&] { return ::mkfifo(lock.c_str(), 0666) == 0; },
        [&] { return ::symlink(kPrecious, lock.c_str()) == 0; },
        [&] { return ::close(::open(lock.c_str(), O_CREAT | O_CLOEXEC, 0600)) == 0; },
        [&] { return ::mkdir(lock.c_str(), 0777) == 0; }};
    for (const auto& trap : traps) {
        fs::remove_all(lock);
        ASSERT_TRUE(asStranger(trap));

        const Result prepared = prepare();

        ASSERT_EQ(prepared.status, 0) << prepared.err;
        EXPECT_TRUE(asServiceUser(canLockClients));
        EXPECT_TRUE(asUser(kStranger + 1, kStranger + 1, {}, canLockClients));
    }
}

TEST_F(AroundTheService, ReadinessIsTheServicesToTellAfterThePreparation)
{
    ASSERT_EQ(prepare().status, 0);
    EXPECT_FALSE(asStranger([] {
        return makeFile(kReadyEvent) || ::mkdir(kReadyEvent, 0777) == 0 ||
               ::symlink(kPrecious, kReadyEvent) == 0 || ::unlink(kReadyEvent) == 0 ||
               ::rename(kPrecious, kReadyEvent) == 0;
    }));
    EXPECT_FALSE(fs::exists(kReadyEvent)) << "whoever waits takes the service for ready";

    EXPECT_TRUE(asServiceUser([] { return LwipcEventDone(kReadyEvent) == 0; }));

    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kReadyEvent)));
    EXPECT_TRUE(asStranger([] { return ::access(kReadyEvent, F_OK) == 0; }));
}

TEST_F(AroundTheService, TheEventAfterAnUpdateIsTheControlLayersToTell)
{
    ASSERT_TRUE(asStranger([] { return makeFile(kResumeEvent); }));
    for (int start = 0; start < 2; ++start) {
        ASSERT_EQ(prepare().status, 0);
        EXPECT_FALSE(fs::exists(kResumeEvent));
        EXPECT_FALSE(asStranger([] { return makeFile(kResumeEvent); }));
    }

    EXPECT_TRUE(asServiceUser([] { return LwipcEventDone(kResumeEvent) == 0; }));
    ASSERT_EQ(prepare().status, 0);

    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kResumeEvent))) << "raised before the start";
}

TEST_F(AroundTheService, AStrangersUpdateListGoesAndOurOwnStays)
{
    ASSERT_TRUE(asStranger([] { return ::symlink(kPrecious, kUpdateList) == 0; }));
    ASSERT_EQ(prepare().status, 0);
    EXPECT_FALSE(fs::is_symlink(kUpdateList));

    ASSERT_TRUE(makeFile(kUpdateList));
    ASSERT_EQ(prepare().status, 0);
    struct stat status = {};
    ASSERT_EQ(::lstat(kUpdateList, &status), 0);
    EXPECT_EQ(status.st_uid, ::getpwnam(kUser)->pw_uid)
        << "root's, which the user could not replace";
    fs::remove(kUpdateList);

    ASSERT_TRUE(asServiceUser([] { return makeFile(kUpdateList); }));
    ASSERT_EQ(prepare().status, 0);
    EXPECT_TRUE(fs::exists(kUpdateList));
}

TEST_F(AroundTheService, AnUpdateListThatACheckMayBeWritingStaysUntilItIsOver)
{
    constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/emps";
    fs::create_directories(kPackages);
    UniqueFd check(::open(kPackages, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(check.get(), LOCK_EX), 0);
    ASSERT_TRUE(asStranger([] { return makeFile(kUpdateList); }));

    ASSERT_EQ(prepare().status, 0);
    EXPECT_TRUE(fs::exists(kUpdateList));
    check.reset();
    ASSERT_EQ(prepare().status, 0);
    EXPECT_FALSE(fs::exists(kUpdateList));
}

TEST_F(AroundTheService, AnEndWithStatus0ThatWasNotItsOwnIsAFailure)
{
    ASSERT_EQ(prepare().status, 0);
    EXPECT_EQ(unit("end").status, 0) << "runs where the service has ended by itself as well";

    const Result tidied = unit("tidy", kEndedByItself);

    EXPECT_EQ(tidied.status, 1);
    expectText(tidied.err, like("*a module has called exit()*"));
    EXPECT_FALSE(fs::exists(kLifeMarker));
}

TEST_F(AroundTheService, AnEndByASignalThatCountsAsSuccessIsAFailureUnlessItWasAskedFor)
{
    for (const std::string signal : {"TERM", "INT", "HUP", "PIPE"}) {
        const std::string ended = "SERVICE_RESULT=success EXIT_CODE=killed EXIT_STATUS=" + signal;
        ASSERT_EQ(prepare().status, 0);
        EXPECT_EQ(unit("tidy", ended).status, 0) << "a stop before it was ready";

        ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
        daemon.kill();
        const Result tidied = unit("tidy", ended);
        EXPECT_EQ(tidied.status, 1);
        expectText(tidied.err, like("*by the signal SIG" + signal + ", but was not stopped*"));
        EXPECT_FALSE(fs::exists(kLifeMarker));

        ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
        fs::remove(kLifeMarker);
        fs::create_symlink("/nonexistent/quillon-is-stopping", kLifeMarker);  // as a stop does
        daemon.kill();
        EXPECT_EQ(unit("tidy", ended).status, 0) << "while it was being stopped";
    }
}

TEST_F(AroundTheService, EveryOtherEndIsNoFailureOfTheTidying)
{
    ASSERT_EQ(prepare().status, 0);
    fs::remove(kLifeMarker);  // as the service does as its last act
    EXPECT_EQ(unit("end").status, 0);
    EXPECT_EQ(unit("tidy", kEndedByItself).status, 0);

    ASSERT_EQ(prepare().status, 0);
    EXPECT_EQ(unit("tidy", "SERVICE_RESULT=signal EXIT_CODE=killed EXIT_STATUS=9").status, 0);
    ASSERT_EQ(prepare().status, 0);
    EXPECT_EQ(unit("tidy", "SERVICE_RESULT=exit-code EXIT_CODE=exited EXIT_STATUS=255").status, 0);
    ASSERT_EQ(prepare().status, 0);
    EXPECT_EQ(unit("tidy").status, 0);
}

TEST_F(AroundTheService, AStoppedServiceHasEndedInOrder)
{
    ASSERT_NO_FATAL_FAILURE(daemon.startAndWait());
    const Result ended = unit("end " + std::to_string(daemon.pid()));
    ASSERT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(daemon.waitForEnd(kPatience), 0);

    EXPECT_EQ(unit("tidy", kEndedByItself).status, 0);
}

TEST_F(AroundTheService, AStopThatAKilledServiceHasNotReadDoesNotEndTheNext)
{
    ASSERT_EQ(prepare().status, 0);
    const mqd_t commands = ::mq_open(FW_MQ_SERVICE_QUEUE, O_WRONLY | O_CLOEXEC);
    const MQData stop = Channel::record(MQ_COMMAND_STOP);
    ASSERT_EQ(::mq_send(commands, reinterpret_cast<const char*>(&stop), sizeof stop, 0), 0);
    ::mq_close(commands);
    unit("tidy", "SERVICE_RESULT=timeout EXIT_CODE=killed EXIT_STATUS=9");

    ASSERT_EQ(prepare().status, 0);
    ASSERT_NO_FATAL_FAILURE(startDaemon());

    EXPECT_TRUE(channel->ask(MQ_COMMAND_PROGRESS)) << "the service reads and answers";
}

TEST_F(AroundTheService, AModuleThatCallsExitIsNoticed)
{
    installTestModule("alpha", "need=1\nseconds=5\ndoUpdate_decryption.effect=exit\n");
    putImage("alpha", "2.0", "payload");
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_TIME)));
    ASSERT_TRUE(channel->receive());
    ASSERT_TRUE(channel->send(Channel::record(MQ_COMMAND_START)));
    ASSERT_THAT(daemon.waitForEnd(kLongestUpdate), Optional(0));

    unit("end");
    EXPECT_EQ(unit("tidy", kEndedByItself).status, 1);
}

/// The queues for the members of one group.
class QueueGroup : public AroundTheService
{
protected:
    static bool canSend()
    {
        const mqd_t queue = ::mq_open(FW_MQ_SERVICE_QUEUE, O_WRONLY | O_CLOEXEC);
        return queue != -1 && ::mq_close(queue) == 0;
    }

    static bool canRead()
    {
        const mqd_t queue = ::mq_open(FW_MQ_CONTROL_QUEUE, O_RDONLY | O_CLOEXEC);
        return queue != -1 && ::mq_close(queue) == 0;
    }

    static gid_t group() { return ::getgrnam(kQueueGroup)->gr_gid; }

    static void expectOnlyMembers()
    {
        EXPECT_FALSE(asStranger(canSend));
        EXPECT_FALSE(asStranger(canRead));
        EXPECT_TRUE(asUser(kStranger, kStranger, {group()}, canSend));
        EXPECT_TRUE(asUser(kStranger, kStranger, {group()}, canRead));
    }
};

TEST_F(QueueGroup, AloneSendsCommandsAndReadsReplies)
{
    ASSERT_EQ(prepare().status, 0);
    EXPECT_TRUE(asStranger(canSend)) << "without a group, as ever";

    const Result prepared = prepare("--queue-group " + std::string(kQueueGroup) + " ");

    ASSERT_EQ(prepared.status, 0) << prepared.err;
    expectOnlyMembers();
}

TEST_F(QueueGroup, ComesFromTheEnvironmentAsWell)
{
    const std::string variable = "QUILLON_QUEUE_GROUP=" + std::string(kQueueGroup);
    const Result prepared = unit(std::string("prepare ") + kUser, variable);

    ASSERT_EQ(prepared.status, 0) << prepared.err;
    expectOnlyMembers();
}

TEST_F(QueueGroup, ThatDoesNotExistIsSaidAndNothingIsOpened)
{
    const Result prepared = prepare("--queue-group no-such-group ");

    EXPECT_EQ(prepared.status, 1);
    expectText(prepared.err, like("*groupadd --system no-such-group*"));
    EXPECT_FALSE(asStranger(canSend));
}

TEST_F(QueueGroup, KeepsTheQueuesWhileTheServiceRunsAndTheUnitTakesThemAway)
{
    if (!openWayTo(QUILLON_SERVICE_PROGRAM)) {
        GTEST_SKIP() << "here no other user can start the program";
    }
    ASSERT_EQ(prepare("--queue-group " + std::string(kQueueGroup) + " ").status, 0);
    const pid_t service = ::fork();
    if (service == 0) {
        const passwd* user = ::getpwnam(kUser);
        const gid_t member = group();
        const bool isUser = ::setgroups(1, &member) == 0 && ::setgid(user->pw_gid) == 0 &&
                            ::setuid(user->pw_uid) == 0;
        const int nothing = ::open("/dev/null", O_RDWR);
        ::dup2(nothing, STDERR_FILENO);
        if (isUser) {
            ::execl(QUILLON_SERVICE_PROGRAM, QUILLON_SERVICE_PROGRAM, nullptr);
        }
        ::_exit(127);
    }
    int status = 0;
    const bool isReady =
        eventually(
            [&] { return fs::exists(kReadyEvent) || ::waitpid(service, &status, WNOHANG) != 0; },
            std::chrono::seconds(30)) &&
        fs::exists(kReadyEvent);
    ASSERT_TRUE(isReady) << "status " << status;
    expectOnlyMembers();
    channel.emplace();
    EXPECT_TRUE(channel->ask(MQ_COMMAND_PROGRESS)) << "the service reads and answers";
    channel.reset();

    EXPECT_EQ(unit("end " + std::to_string(service)).status, 0);
    EXPECT_EQ(::waitpid(service, &status, 0), service);
    EXPECT_EQ(status, 0);
    expectOnlyMembers();
    EXPECT_EQ(unit("tidy", kEndedByItself).status, 0);
    EXPECT_FALSE(canSend());
    EXPECT_FALSE(canRead());
}

TEST_F(QueueGroup, KeepsCommandsThatOutliveACrash)
{
    ASSERT_EQ(prepare("--queue-group " + std::string(kQueueGroup) + " ").status, 0);

    unit("tidy", "SERVICE_RESULT=signal EXIT_CODE=killed EXIT_STATUS=9");

    EXPECT_TRUE(canSend());
}

}  // namespace
}  // namespace quillon::test
