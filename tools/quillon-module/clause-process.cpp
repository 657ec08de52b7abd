#include "tools/quillon-module/clause-process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>

#include "base/fd.h"
#include "tools/quillon-module/exit-codes.h"
#include "tools/quillon-module/module.h"
#include "tools/shared/deadline-child.h"
#include "tools/shared/signals.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr int kTellingNumber = 3;  // its file's, until it is mapped
constexpr std::size_t kMostOutput = 65536;

/// What has become of the clause's process, told by its keeper in memory that the module does not
/// have.
struct Keeping
{
    ChildEnd end;
    bool isTold;
};

template <typename Content>
struct Unmap
{
    void operator()(Content* content) const { munmap(content, sizeof(Content)); }
};
template <typename Content>
using Shared = std::unique_ptr<Content, Unmap<Content>>;

[[noreturn]] void fail(const std::string& what)
{
    throw Failure(kExitFile, what + ": " + std::strerror(errno));
}

/// All zero, as a new file is: a Telling or Keeping at its beginning.
/// @param file  -1 for memory without one
template <typename Content>
Shared<Content> mapped(int file)
{
    const int flags = file == -1 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED;
    void* const memory = mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, flags, file, 0);
    if (memory == MAP_FAILED) {
        fail("no memory for the process of a clause");
    }
    return Shared<Content>(static_cast<Content*>(memory));
}

/// Of a size that nobody can change, neither a module that shortens what is mapped here, nor one
/// that prints without end.
UniqueFd memoryFile(const char* name, std::size_t size, unsigned int flags)
{
    UniqueFd file(memfd_create(name, flags | MFD_ALLOW_SEALING));
    if (!file || ftruncate(file.get(), static_cast<off_t>(size)) != 0 ||
        fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        fail("no memory for the process of a clause");
    }
    return file;
}

std::string textOf(const char* text, std::size_t size)
{
    return {text, strnlen(text, size)};
}

/// What has been written, up to the position that the processes share.
std::string outputOf(int file)
{
    std::string output(kMostOutput, '\0');
    const off_t end = std::clamp(lseek(file, 0, SEEK_CUR), off_t{0}, off_t{kMostOutput});
    const ssize_t size = pread(file, output.data(), static_cast<std::size_t>(end), 0);
    output.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return output;
}

void store(const Judgement& judgement, Telling& telling)
{
    telling.text[judgement.text.copy(telling.text, sizeof(telling.text) - 1)] = '\0';
    telling.verdict = judgement.verdict;
}

/// After fork(): nothing here takes memory.
[[noreturn]] void become(const std::vector<char*>& words, int telling, int output, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kExitFile);
    }
    RequestsHeld::release();
    onSignal(SIGPIPE, SIG_DFL);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);  // a crash is expected, and told
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    dup2(telling, kTellingNumber);
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    closefrom(kTellingNumber + 1);
    execv("/proc/self/exe", words.data());
    _exit(kExitFile);
}

/// Ends what a module has started and left, daemons as well, in a process that all of them come to.
/// @param leftAlone  a child that could not even be killed
void endChildren(pid_t leftAlone = 0)
{
    for (bool isAny = true; isAny;) {
        isAny = false;
        std::error_code gone;
        for (const auto& task : fs::directory_iterator("/proc/self/task", gone)) {
            std::ifstream children(task.path() / "children");
            for (pid_t child = 0; children >> child;) {
                if (child != leftAlone) {
                    kill(child, SIGKILL);
                    isAny = waitpid(child, nullptr, __WALL) == child || isAny;
                }
            }
        }
    }
}

/// The keeper: a process between this one and that of a clause. It becomes the parent of what a
/// module has started and left, and ends it. This one could not: it may have had children before,
/// or be the first process of a container, which becomes the parent of every orphan.
[[noreturn]] void keep(const std::vector<char*>& words, int file, int output, pid_t parent,
                       const Telling& telling, Keeping& keeping, RequestsHeld& requests)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    const pid_t child = getppid() == parent ? fork() : -1;
    if (child == 0) {
        setpgid(0, 0);
        become(words, file, output, self);
    }
    if (child > 0) {
        setpgid(child, child);  // in both: whoever comes first
        keeping.end = waitForChild(child, telling.deadline, requests);
        endChildren(child);
        keeping.isTold = true;
    }
    _exit(kExitSuccess);
}

/// Ends the keeper when a request arrives. A module may stop the keeper again and again, so its
/// time is limited.
/// @return the request; 0 for none
int waitForKeeper(pid_t keeper, const Telling& telling, RequestsHeld& requests)
{
    constexpr milliseconds kBetweenLooks(200);
    constexpr std::chrono::nanoseconds kKeepersTime = std::chrono::seconds(10);
    int request = 0;
    std::int64_t asked = INT64_MAX - kKeepersTime.count();
    while (waitpid(keeper, nullptr, WNOHANG) == 0) {
        const int signal = requests.waitFor(kBetweenLooks);
        if (signal != 0 && signal != SIGCHLD) {
            request = signal;
            asked = std::min(asked, monotonicNow());
            kill(keeper, SIGTERM);
        }
        const std::int64_t last = std::min(asked, telling.deadline.load());
        kill(keeper, monotonicNow() > last + kKeepersTime.count() ? SIGKILL : SIGCONT);
    }
    return request;
}

/// Of a process that has not come to a judgement.
Judgement judgementOf(const ChildEnd& end, const Telling& telling, const Subject& subject)
{
    const std::string moment = textOf(telling.moment, sizeof(telling.moment));
    if (end.judgedHung != 0) {
        return {Verdict::kBroken, moment + " does not return (longer than " +
                                      std::to_string(subject.longest.count()) +
                                      " ms, for an update and three times what it expects)"};
    }
    if (WIFSIGNALED(end.status)) {
        return {Verdict::kBroken,
                "it crashes in " + moment + " (" + nameOfSignal(WTERMSIG(end.status)) + ")"};
    }
    return {Verdict::kBroken, "it ends the process in " + moment + " with status " +
                                  std::to_string(WEXITSTATUS(end.status))};
}

std::vector<std::string> wordsFor(const Clause& clause, const Subject& subject)
{
    std::vector<std::string> words = {
        "quillon-module", kProcessWord,  clause.name, std::to_string(subject.longest.count()),
        subject.file,     subject.image, subject.info};
    words.insert(words.end(), subject.others.begin(), subject.others.end());
    return words;
}

}  // namespace

Outcome judgeApart(const Clause& clause, const Subject& subject)
{
    std::vector<std::string> texts = wordsFor(clause, subject);
    std::vector<char*> words;
    words.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        words.push_back(text.data());
    }
    words.push_back(nullptr);
    // Without MFD_CLOEXEC: dup2() does nothing for a file that has the right number already.
    const UniqueFd file = memoryFile("telling", sizeof(Telling), 0);
    const UniqueFd output = memoryFile("output", kMostOutput, MFD_CLOEXEC);
    const Shared<Telling> telling = mapped<Telling>(file.get());
    const Shared<Keeping> keeping = mapped<Keeping>(-1);

    RequestsHeld requests;
    const std::int64_t begin = monotonicNow();
    telling->deadline = begin + std::chrono::nanoseconds(subject.longest).count();
    const pid_t self = getpid();
    const pid_t keeper = fork();
    if (keeper == -1) {
        fail("no process can be started");
    }
    if (keeper == 0) {
        keep(words, file.get(), output.get(), self, *telling, *keeping, requests);
    }
    if (const int request = waitForKeeper(keeper, *telling, requests); request != 0) {
        requests.putBack(request);
        throw Failure(kExitInterrupted, "interrupted");
    }
    Outcome outcome;
    outcome.duration = milliseconds((monotonicNow() - begin) / 1'000'000);
    outcome.output = outputOf(output.get());
    const Verdict verdict = telling->verdict;
    if (!keeping->isTold) {
        outcome.judgement = {Verdict::kBroken,
                             "it ends a process that it has not started, or none "
                             "can be started here"};
    } else if (telling->childCameOut) {
        outcome.judgement = {Verdict::kBroken,
                             "a process that it has forked returns from an entry: it must end "
                             "with _exit there"};
    } else if (verdict != Verdict::kNone) {
        outcome.judgement = {verdict, textOf(telling->text, sizeof(telling->text))};
    } else {
        outcome.judgement = judgementOf(keeping->end, *telling, subject);
    }
    return outcome;
}

Outcome judgeHere(const Clause& clause, const Subject& subject)
{
    Telling telling{};
    Module module(subject, telling);
    const std::int64_t begin = monotonicNow();
    Outcome outcome;
    outcome.judgement = judge(clause, module);
    outcome.duration = milliseconds((monotonicNow() - begin) / 1'000'000);
    return outcome;
}

int mainOfProcess(int argc, char** argv)
{
    constexpr int kFixed = 6;
    const Clause* const clause = argc >= kFixed ? findClause(argv[1]) : nullptr;
    struct stat status = {};
    if (clause == nullptr || fstat(kTellingNumber, &status) != 0 ||
        status.st_size != sizeof(Telling)) {
        return kExitUsage;
    }
    const Shared<Telling> telling = mapped<Telling>(kTellingNumber);
    close(kTellingNumber);
    Subject subject;
    subject.longest = milliseconds(std::atol(argv[2]));
    subject.file = argv[3];
    subject.image = argv[4];
    subject.info = argv[5];
    subject.others.assign(argv + kFixed, argv + argc);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // a daemon that a module makes comes to this process
    Module module(subject, *telling);
    store(judge(*clause, module), *telling);
    endChildren();
    static_cast<void>(std::fflush(nullptr));
    _exit(kExitSuccess);  // the module's own ends are judged by a clause, not here
}

}  // namespace quillon::kit
