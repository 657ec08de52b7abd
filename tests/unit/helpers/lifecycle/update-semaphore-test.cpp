#include "helpers/lifecycle/update-semaphore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "support/threaded-process.h"

namespace {

namespace fs = std::filesystem;

constexpr char kName[] = "/SEM_UPDATE_CONTROL";
constexpr char kFile[] = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr char kOther[] = "/dev/shm/other";
constexpr uid_t kStranger = 1234;

void provide()
{
    quillon::unit::provideSemaphore(geteuid(), getegid());
}

/// As the control layers open it, and so make it when they are first.
sem_t* openAsControlLayer(unsigned value = 1)
{
    return sem_open(kName, O_CREAT, 0600, value);
}

ino_t numberOf(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 ? status.st_ino : 0;
}

void expectFree()
{
    struct stat status = {};
    ASSERT_EQ(lstat(kFile, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(status.st_nlink, 1U);
    ASSERT_EQ(static_cast<std::size_t>(status.st_size), sizeof(sem_t)) << "would end its users";
    sem_t* semaphore = openAsControlLayer();
    ASSERT_NE(semaphore, SEM_FAILED);
    EXPECT_EQ(sem_trywait(semaphore), 0);
    EXPECT_NE(sem_trywait(semaphore), 0) << "more than one may work at a time";
    EXPECT_EQ(sem_post(semaphore), 0);
}

/// A process that has done something and waits for its end.
class Process
{
public:
    explicit Process(const std::function<bool()>& act)
    {
        int done[2] = {};
        EXPECT_EQ(pipe2(done, O_CLOEXEC), 0);
        id_ = fork();
        if (id_ == 0) {
            const char word = act() ? 'y' : 'n';
            [[maybe_unused]] const ssize_t told = write(done[1], &word, 1);
            for (;;) {
                pause();
            }
        }
        char word = 0;
        EXPECT_EQ(read(done[0], &word, 1), 1);
        hasActed_ = word == 'y';
        close(done[0]);
        close(done[1]);
    }
    ~Process()
    {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool hasActed() const { return hasActed_; }

private:
    pid_t id_ = -1;
    bool hasActed_ = false;
};

bool becomeStranger()
{
    return setgid(kStranger) == 0 && setuid(kStranger) == 0;
}

class UpdateSemaphore : public testing::Test
{
protected:
    UpdateSemaphore()
    {
        umask(0);
        fs::remove_all(kFile);
        fs::remove_all(kOther);
    }
};

TEST_F(UpdateSemaphore, IsThereAndFreeWhateverTheMask)
{
    umask(0777);

    provide();

    expectFree();
}

TEST_F(UpdateSemaphore, StaysWhenItIsSound)
{
    openAsControlLayer();
    const ino_t before = numberOf(kFile);

    provide();

    EXPECT_EQ(numberOf(kFile), before);
    expectFree();
}

TEST_F(UpdateSemaphore, OfRootsIsGivenToTheServicesUserAndStaysTheSame)
{
    openAsControlLayer();
    if (geteuid() != 0 || chown(kFile, kStranger, kStranger) != 0) {
        GTEST_SKIP() << "cannot give anything to another user here";
    }
    ASSERT_EQ(chown(kFile, 0, 0), 0);
    const ino_t before = numberOf(kFile);

    quillon::unit::provideSemaphore(kStranger, kStranger);

    struct stat status = {};
    ASSERT_EQ(lstat(kFile, &status), 0);
    EXPECT_EQ(status.st_uid, kStranger);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
    EXPECT_EQ(status.st_ino, before);
    EXPECT_EQ(sem_trywait(openAsControlLayer()), 0) << "root can still take its turn";
}

struct Trap
{
    const char* name;
    std::function<bool()> lay;
};

class TrappedSemaphore : public UpdateSemaphore, public testing::WithParamInterface<Trap>
{
};

TEST_P(TrappedSemaphore, IsMadeAnew)
{
    ASSERT_TRUE(GetParam().lay());

    provide();

    expectFree();
}

bool isTaken()
{
    sem_t* semaphore = openAsControlLayer(0);
    return semaphore != SEM_FAILED && sem_close(semaphore) == 0;
}

bool hasTwoTurns()
{
    sem_t* semaphore = openAsControlLayer(2);
    return semaphore != SEM_FAILED && sem_close(semaphore) == 0;
}

bool isEmpty()
{
    return std::ofstream(kFile).is_open() && chmod(kFile, 0600) == 0;
}

bool isOpenToEverybody()
{
    sem_t* semaphore = openAsControlLayer();
    return semaphore != SEM_FAILED && sem_close(semaphore) == 0 && chmod(kFile, 0666) == 0;
}

bool hasSecondName()
{
    sem_t* semaphore = openAsControlLayer();
    return semaphore != SEM_FAILED && sem_close(semaphore) == 0 && link(kFile, kOther) == 0;
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, TrappedSemaphore,
                         testing::Values(Trap{"Taken", isTaken}, Trap{"WithTwoTurns", hasTwoTurns},
                                         Trap{"Empty", isEmpty},
                                         Trap{"OpenToEverybody", isOpenToEverybody},
                                         Trap{"WithASecondName", hasSecondName},
                                         Trap{"Link", [] { return symlink(kOther, kFile) == 0; }},
                                         Trap{"Fifo", [] { return mkfifo(kFile, 0600) == 0; }},
                                         Trap{"Directory", [] { return mkdir(kFile, 0700) == 0; }}),
                         [](const auto& trap) { return trap.param.name; });

TEST_F(UpdateSemaphore, OfAStrangerIsMadeAnewThoughTheStrangerHasItOpen)
{
    const Process stranger([] {
        prctl(PR_SET_NAME, "Uid: 0 0");  // as in /proc/PID/status
        return becomeStranger() && openAsControlLayer(0) != SEM_FAILED;
    });
    if (!stranger.hasActed()) {
        GTEST_SKIP() << "there are no other users here";
    }
    ASSERT_NE(numberOf(kFile), 0U);

    provide();

    expectFree();
}

TEST_F(UpdateSemaphore, StaysWhileAControlLayerUsesIt)
{
    ino_t before = 0;
    {
        const Process layer([] {
            sem_t* semaphore = openAsControlLayer();
            return semaphore != SEM_FAILED && sem_wait(semaphore) == 0;
        });
        ASSERT_TRUE(layer.hasActed());
        before = numberOf(kFile);

        provide();

        EXPECT_EQ(numberOf(kFile), before);
    }

    provide();  // the layer was killed in the middle of an update

    expectFree();
}

TEST_F(UpdateSemaphore, StaysWhileAThreadUsesItWhoseProcessHasLostItsMainThread)
{
    const quillon::test::ThreadedProcess layer([] {
        sem_t* semaphore = openAsControlLayer();
        return semaphore != SEM_FAILED && sem_wait(semaphore) == 0;
    });
    ASSERT_TRUE(layer.isAtWork());
    const ino_t before = numberOf(kFile);

    provide();

    EXPECT_EQ(numberOf(kFile), before);
}

}  // namespace
