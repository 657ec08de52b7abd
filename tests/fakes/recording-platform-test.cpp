// The recording platform itself: what the other tests rely on.

#include "fakes/recording-platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "fakes/timeline.h"
#include "platform/app-binary-manager.h"
#include "platform/events.h"
#include "platform/log.h"
#include "platform/privileged.h"
#include "platform/secure-storage.h"
#include "platform/trace.h"

namespace quillon::fakes {
namespace {

constexpr char kPrefixed[] = "%s: %s(%d) > text %d";

void log(int buffer, const char* tag, int value)
{
    __dlog_print(buffer, ERROR, tag, kPrefixed, "file.cpp", "function", 7, value);
}

void trace(const char* tag, int value)
{
    trace_logger_write(ERROR, tag, "file.cpp", "function", 7, "text %d", value);
}

std::vector<std::string> namesIn(const char* path)
{
    std::vector<std::string> names;
    DIR* directory = opendir(path);
    while (const dirent* entry = directory != nullptr ? readdir(directory) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    if (directory != nullptr) {
        closedir(directory);
    }
    return names;
}

TEST(RecordingLog, ALineWithItsTraceIsOneEntry)
{
    log(2, "FWUPDATE", 1);
    trace("FWUPDATE", 1);

    expectSteps({LogFrom("function", ERROR, "text 1")});
    EXPECT_EQ(wholeTimeline().size(), 2U);
    EXPECT_EQ(mismatches(), "");
}

TEST(RecordingLog, ALineWithoutItsTraceIsAMismatch)
{
    log(2, "FWUPDATE", 1);

    expectText(mismatches(), like("*without the same trace*"));
}

TEST(RecordingLog, ATraceThatSaysSomethingElseIsAMismatch)
{
    log(2, "FWUPDATE", 1);
    trace("FWUPDATE", 2);

    expectText(mismatches(), like("*without the same trace*"));
}

TEST(RecordingLog, ATraceOfItsOwnIsAMismatch)
{
    trace("FWUPDATE", 1);

    expectText(mismatches(), like("*without its log line*"));
}

TEST(RecordingLog, AnotherBufferOrTagIsAMismatch)
{
    log(1, "FWUPDATE", 1);
    trace("FWUPDATE", 1);
    expectText(mismatches(), like("*buffer 1*"));

    clear();
    log(2, "OTHER", 1);
    trace("FWUPDATE", 1);
    expectText(mismatches(), like("*tag OTHER*"));

    clear();
    log(2, "FWUPDATE", 1);
    trace("OTHER", 1);
    expectText(mismatches(), like("*without the same trace*"));
}

TEST(RecordingLog, AnotherPrefixIsAMismatch)
{
    __dlog_print(2, ERROR, "FWUPDATE", "plain");

    expectText(mismatches(), like("*without the prefix: plain*"));
}

TEST(RecordingLog, AFileThatIsNoBaseNameIsAMismatch)
{
    __dlog_print(2, ERROR, "FWUPDATE", kPrefixed, "/src/file.cpp", "function", 7, 1);

    expectText(mismatches(), like("*not a base name*"));
}

TEST(RecordingLog, LinesOfOtherThreadsMayComeBetweenALineAndItsTrace)
{
    log(2, "FWUPDATE", 1);
    std::thread([] {
        log(2, "FWUPDATE", 2);
        trace("FWUPDATE", 2);
    }).join();
    trace("FWUPDATE", 1);

    expectSteps({Log(ERROR, "text 1"), Log(ERROR, "text 2")});
}

TEST(RecordingPlatform, AnswersTheQueueFirstAndThenLastingly)
{
    platform().lwipcEventDone.then({1, 2});
    platform().lwipcEventDone.always(3);
    platform().lwipcEventDone.thenCall([](const char*) { return errno = ENOENT; });

    EXPECT_EQ(LwipcEventDone("/a"), 1);
    EXPECT_EQ(LwipcEventDone("/a"), 2);
    EXPECT_EQ(LwipcEventDone("/a"), ENOENT);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(LwipcEventDone("/a"), 3);

    expectTexts(callTexts(), {"LwipcEventDone(\"/a\") = 1", "LwipcEventDone(\"/a\") = 2",
                              "LwipcEventDone(\"/a\") = 2", "LwipcEventDone(\"/a\") = 3"});
}

TEST(RecordingPlatform, ReadsTheItemsOfTheSecureStorage)
{
    platform().items["quillon"] = {1, 2, 3};
    ss_credential credential;
    ss_init_credential(&credential, 1, 2, 3, 4, 5, 1, 0);
    unsigned char* data = nullptr;
    size_t size = 0;

    EXPECT_EQ(ss_read(&data, &size, 0, 0, "other", &credential, 33), 5);
    EXPECT_EQ(ss_read(&data, &size, 0, 0, "quillon", &credential, 33), 0);

    EXPECT_EQ(Bytes(data, data + size), (Bytes{1, 2, 3}));
    ss_free_buffer(data);
    expectTexts(callTexts(),
                {"ss_init_credential(1, 2, 3, 4, 5, 1, 0) = 0",
                 "ss_read(0, 0, \"other\", credential, 33) = 5",
                 "ss_read(0, 0, \"quillon\", credential, 33) = 0", "ss_free_buffer(data)"});
}

TEST(RecordingPlatform, ARequestWhoseBufferOrResultIsNotPreparedIsAMismatch)
{
    int result = 0;
    const char prepared[] = "-o a\0\0\0";
    PS_Mount(prepared, sizeof(prepared), 0, &result);
    PS_Mknod(prepared, sizeof(prepared), 0, &result);
    PS_Umount("/mnt", 4, 0, &result);
    EXPECT_EQ(mismatches(), "");

    PS_Mount("-o a\0b", 7, 0, &result);
    expectText(mismatches(), like("*PS_Mount with a buffer*"));
    clear();
    PS_Mknod("-m a", 4, 0, &result);
    expectText(mismatches(), like("*PS_Mknod with a buffer*"));
    clear();
    result = 1;
    PS_Umount("/mnt", 4, 0, &result);
    expectText(mismatches(), like("*PS_Umount with a result*"));
}

TEST(RecordingPlatform, TellsWhatADownloadIsAskedWith)
{
    int data = 0;
    appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "alphaemp");
    appbinaryManager::ABM_DownloadAppBinary([](const std::string&, int, void*) {}, &data, "b");

    expectTexts(callTexts(), {"ABM_DownloadAppBinary(null, null, \"alphaemp\") = true",
                              "ABM_DownloadAppBinary(callback, data, \"b\") = true"});
}

TEST(RecordingCalls, AreRecordedOnlyWhenAskedFor)
{
    setFastSleep(true);
    usleep(1);
    recordCalls({"usleep"});
    usleep(2);

    expectTexts(callTexts(), {"usleep(2) = 0"});
    EXPECT_THROW(recordCalls({"sleep"}), std::invalid_argument);
}

TEST(RecordingCalls, ReachTheRealFunctions)
{
    recordCalls({"access", "mq_open", "mq_send", "mq_receive", "mq_close", "mq_unlink", "sem_open",
                 "sem_wait", "sem_post", "sem_close", "setxattr", "remove", "prctl", "realpath"});

    mq_attr attributes = {};
    attributes.mq_maxmsg = 2;
    attributes.mq_msgsize = 8;
    const mqd_t queue = mq_open("/test", O_RDWR | O_CREAT, 0600, &attributes);
    ASSERT_NE(queue, -1);
    EXPECT_EQ(mq_send(queue, "12345678", 8, 0), 0);
    char record[8];
    EXPECT_EQ(mq_receive(queue, record, 8, nullptr), 8);
    EXPECT_EQ(std::string(record, 8), "12345678");
    mq_close(queue);
    mq_unlink("/test");

    sem_t* semaphore = sem_open("/test", O_CREAT, 0600, 1);
    ASSERT_NE(semaphore, SEM_FAILED);
    EXPECT_EQ(sem_wait(semaphore), 0);
    EXPECT_EQ(sem_post(semaphore), 0);
    sem_close(semaphore);
    sem_unlink("/test");

    char name[16] = {};
    prctl(PR_SET_NAME, "tester");
    prctl(PR_GET_NAME, name);
    EXPECT_STREQ(name, "tester");

    char resolved[4096];
    EXPECT_STREQ(realpath("/tmp/..", resolved), "/");
    EXPECT_EQ(access("/tmp/nothing", F_OK), -1);
    EXPECT_EQ(setxattr("/tmp/nothing", "name", "value", 6, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(std::remove("/tmp/nothing"), -1);

    expectTexts(callTexts(),
                {"mq_open(\"/test\", O_RDWR|O_CREAT, 0600, flags 0 maxmsg 2 msgsize 8 curmsgs "
                 "0) = ok",
                 "mq_send(\"/test\", 8, 0) = 0", "mq_receive(\"/test\", 8, null) = 8",
                 "mq_close(\"/test\") = 0", "mq_unlink(\"/test\") = 0",
                 "sem_open(\"/test\", O_CREAT, 0600, 1) = ok", "sem_wait(\"/test\") = 0",
                 "sem_post(\"/test\") = 0", "sem_close(\"/test\") = 0",
                 "prctl(PR_SET_NAME, \"tester\") = 0", like("*prctl(*"),
                 "realpath(\"/tmp/..\") = \"/\"", "access(\"/tmp/nothing\", F_OK) = -1",
                 "setxattr(\"/tmp/nothing\", \"name\", \"value\\0\", 6, 0) = -1",
                 "remove(\"/tmp/nothing\") = -1"});
}

TEST(RecordingCalls, FailWhenTheyAreToldTo)
{
    failCall("access", EACCES, 2, 1);

    EXPECT_EQ(access("/tmp", F_OK), 0);
    EXPECT_EQ(access("/tmp", F_OK), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(access("/tmp", F_OK), -1);
    EXPECT_EQ(access("/tmp", F_OK), 0);
}

TEST(RecordingCalls, FailingOpensGiveTheirOwnFailureValue)
{
    failCall("mq_open", EMFILE);
    failCall("sem_open", EMFILE);
    failCall("realpath", EIO);

    char resolved[4096];
    EXPECT_EQ(mq_open("/test", O_RDONLY), -1);
    EXPECT_EQ(sem_open("/test", O_CREAT, 0600, 1), SEM_FAILED);
    EXPECT_EQ(realpath("/", resolved), nullptr);
}

TEST(RecordingCalls, AFileAndADirectoryMayStandInForOthers)
{
    const std::string directory = "/opt/media/nodes";
    std::filesystem::create_directories(directory);
    std::ofstream(directory + "/table") << "first line";
    recordCalls({"fopen64", "opendir", "mkdir"});
    openInstead("/proc/mounts", directory + "/table");
    openInstead("/dev", directory);

    std::string line;
    std::ifstream table("/proc/mounts");
    EXPECT_TRUE(std::getline(table, line));
    EXPECT_EQ(line, "first line");
    expectTexts(namesIn("/dev"), {"table"});
    EXPECT_EQ(mkdir("/dev/nothing/below", 0775), -1);

    expectTexts(callTexts(), {"fopen64(\"/proc/mounts\", \"r\") = ok", "opendir(\"/dev\") = ok",
                              "mkdir(\"/dev/nothing/below\", 0775) = -1"});
}

TEST(RecordingCalls, OpeningAFileOrADirectoryMayFail)
{
    failCall("fopen64", EMFILE);
    failCall("opendir", EMFILE);

    EXPECT_FALSE(std::ifstream("/proc/mounts").is_open());
    EXPECT_EQ(opendir("/dev"), nullptr);
    EXPECT_EQ(errno, EMFILE);
}

TEST(RecordingCalls, AThreadMayBeRefused)
{
    recordCalls({"pthread_create", "pthread_detach"});
    failCall("pthread_create", EAGAIN);

    EXPECT_THROW(std::thread([] {}), std::system_error);
    std::thread([] {}).detach();

    expectTexts(callTexts(),
                {"pthread_create() = 11", "pthread_create() = 0", "pthread_detach() = 0"});
}

TEST(RecordingCalls, ADetachMayWaitForTheEndOfTheThread)
{
    recordCalls({"pthread_detach"});
    setDetachJoins(true);

    std::thread([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        note("ended");
    }).detach();

    expectTexts(callTexts(), {"ended", "pthread_detach() = 0"});
}

TEST(RecordingCalls, ATimedWaitCanBeAwaited)
{
    std::mutex mutex;
    std::condition_variable changed;
    recordCalls({"pthread_cond_clockwait"});
    std::unique_lock<std::mutex> lock(mutex);
    std::thread other([&changed] {
        awaitTimedWait();
        note("is waited for");
        changed.notify_one();
    });

    EXPECT_EQ(changed.wait_for(lock, std::chrono::seconds(20)), std::cv_status::no_timeout);

    other.join();
    expectTexts(callTexts(),
                {"is waited for", like("pthread_cond_clockwait(CLOCK_MONOTONIC, *) = 0")});
}

TEST(RecordingCalls, SomethingMayHappenBeforeATimedWait)
{
    std::mutex mutex;
    std::condition_variable changed;
    recordCalls({"pthread_cond_clockwait"});
    std::unique_lock<std::mutex> lock(mutex);
    beforeTimedWait([&changed] {
        note("not waiting yet");
        changed.notify_one();
    });

    EXPECT_EQ(changed.wait_for(lock, std::chrono::milliseconds(1)), std::cv_status::timeout);
    EXPECT_EQ(changed.wait_for(lock, std::chrono::milliseconds(1)), std::cv_status::timeout);

    expectTexts(callTexts(), {"not waiting yet", like("*) = 110"), like("*) = 110")});
}

TEST(RecordingCalls, ATimedWaitMayBeWokenByNobody)
{
    std::mutex mutex;
    std::condition_variable changed;
    recordCalls({"pthread_cond_clockwait"});
    failCall("pthread_cond_clockwait", 0);
    setMonotonicTime({5, 7});
    std::unique_lock<std::mutex> lock(mutex);

    EXPECT_EQ(changed.wait_for(lock, std::chrono::seconds(20)), std::cv_status::no_timeout);

    expectTexts(callTexts(), {"pthread_cond_clockwait(CLOCK_MONOTONIC, 25.000000007) = 0"});
}

TEST(RecordingCalls, TheStatusOfALinkMayBeRefused)
{
    recordCalls({"lstat"});
    failCall("lstat", EACCES);

    struct stat status = {};
    EXPECT_EQ(lstat("/proc/self", &status), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(lstat("/proc/self", &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));

    expectTexts(callTexts(), {"lstat(\"/proc/self\") = -1", "lstat(\"/proc/self\") = 0"});
}

TEST(RecordingCalls, TheClockMayBeTheTestsOwn)
{
    setMonotonicTime({5, 7});
    timespec now = {};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    EXPECT_EQ(now.tv_sec, 5);
    EXPECT_EQ(now.tv_nsec, 7);

    useRealClock();
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_NE(now.tv_nsec, 7);
}

TEST(RecordingCalls, AnAllocationOfOneSizeMayFailOnce)
{
    if (!canFailAllocations()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    }
    failAllocation(4321);
    void* volatile failed = std::malloc(4321);
    EXPECT_EQ(failed, nullptr);
    failAllocation(4321);
    failed = std::calloc(1, 4321);
    EXPECT_EQ(failed, nullptr);

    void* volatile served = std::malloc(4321);
    EXPECT_NE(served, nullptr);
    std::free(served);
}

TEST(RecordingCalls, ATextCanBeWaitedFor)
{
    std::thread later([] { note("done"); });

    EXPECT_TRUE(waitForText("done", std::chrono::seconds(10)));
    EXPECT_FALSE(waitForText("never", std::chrono::milliseconds(1)));

    later.join();
}

}  // namespace
}  // namespace quillon::fakes
