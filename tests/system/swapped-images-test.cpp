// Images that change between the verifier's look and the reading, in a directory of an ordinary
// user's.

#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "system/system-test.h"
#include "unit/verifier/test-keys.h"

namespace fs = std::filesystem;

namespace quillon::test {
namespace {

constexpr uid_t kNobody = 65534;
constexpr const char* kDirectory = "/tmp/attacker/";
constexpr const char* kImage = "/tmp/attacker/alpha.bin";

/// Waits until whoever opened the file first for reading only has closed it: the verifier.
void awaitClose(int watch)
{
    inotify_event event{};
    while (read(watch, &event, sizeof event) > 0 && (event.mask & IN_CLOSE_NOWRITE) == 0) {
    }
}

/// A process of an ordinary user's that meddles with its own image once the verifier has closed it.
class Attacker
{
public:
    /// @param prepare  runs at once and returns what is to be done in the right moment
    explicit Attacker(const std::function<std::function<void()>()>& prepare)
    {
        int ready[2] = {};
        EXPECT_EQ(pipe(ready), 0);
        child_ = fork();
        if (child_ == 0) {
            const bool isNobody = setgid(kNobody) == 0 && setuid(kNobody) == 0;
            const auto meddle = prepare();
            const int watch = inotify_init1(IN_CLOEXEC);
            const bool watches = inotify_add_watch(watch, kImage, IN_CLOSE_NOWRITE) != -1;
            const char answer = isNobody && watches ? 'y' : 'n';
            static_cast<void>(!write(ready[1], &answer, 1));
            for (;;) {
                awaitClose(watch);
                meddle();
            }
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y') << "the attacker is not ready";
        close(ready[0]);
        close(ready[1]);
    }
    ~Attacker()
    {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

private:
    pid_t child_ = -1;
};

/// One module, "alpha", that is asked for its context long enough after the verification for the
/// attack to come between; a signed image of version "1.0" in the attacker's directory.
class SwappedImages : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        for (const std::string& name : allModules()) {
            removeModule(name);
        }
        installTestModule("alpha",
                          "need=1\nseconds=5\nsetContext.delay_ms=500\n"
                          "capture=/var/lib/quillon/alpha.payload\n");
        fs::create_directory(kDirectory);
        makeImage(kImage, "a", "1.0", randomBytes(3U << 20U, 7));
        ASSERT_EQ(chown(kDirectory, kNobody, kNobody), 0);
        ASSERT_EQ(chown(kImage, kNobody, kNobody), 0);
        startDaemon();
        ASSERT_TRUE(channel->setPath(std::string(kDirectory) + std::string(114, '/')));
    }

    /// That neither the estimate nor a run shows the plug-in anything of it.
    void expectNothingReachesThePlugin()
    {
        EXPECT_EQ(estimate().result, MQ_RESULT_REFUSED);
        EXPECT_EQ(start(), std::nullopt) << "the start's own estimate finds nothing";
        EXPECT_EQ(linesOf("/tmp/quillon-test-alpha.log", "checkVersion").size(), 0U);
        EXPECT_FALSE(fs::exists("/var/lib/quillon/alpha.payload"));
        EXPECT_TRUE(daemon.isRunning());
    }
};

/// "1.0" becomes "9.0": the vector is added to the first block, which nothing else protects.
char withOtherVersion(char firstByteOfVector)
{
    return static_cast<char>(firstByteOfVector ^ '1' ^ '9');
}

TEST_F(SwappedImages, OverwrittenInPlaceAreNotInstalled)
{
    const Attacker attacker([] {
        return [] {
            const int file = open(kImage, O_RDWR | O_CLOEXEC);
            char first = 0;
            static_cast<void>(!pread(file, &first, 1, 0));
            const char other = withOtherVersion(first);
            static_cast<void>(!pwrite(file, &other, 1, 0));
            close(file);
        };
    });

    expectNothingReachesThePlugin();
}

TEST_F(SwappedImages, ChangedThroughAMappingAreNotInstalled)
{
    const Attacker attacker([] {
        const int file = open(kImage, O_RDWR | O_CLOEXEC);
        auto* image =
            static_cast<char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        const char good = image[0];
        image[0] = good;  // the page is writable from now on, and its file's times stay as they are
        return [image, evil = withOtherVersion(good)] { image[0] = evil; };
    });

    expectNothingReachesThePlugin();
}

TEST_F(SwappedImages, CutOffAreNotInstalled)
{
    const Attacker attacker([] { return [] { static_cast<void>(!truncate(kImage, 1U << 20U)); }; });

    expectNothingReachesThePlugin();
}

TEST_F(SwappedImages, ThatNobodyMeddlesWithAreInstalled)
{
    EXPECT_EQ(update(), MQ_RESULT_DONE);
    EXPECT_TRUE(readAll("/var/lib/quillon/alpha.payload") == randomBytes(3U << 20U, 7));
}

}  // namespace
}  // namespace quillon::test
