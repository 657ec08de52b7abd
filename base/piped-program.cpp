#include "base/piped-program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "base/fd.h"

namespace quillon {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestComplaint = 400;
constexpr int kFirstAboveStandard = 3;
constexpr int kMillisecondsBetweenLooks = 2;
constexpr std::chrono::milliseconds kBetweenQuietLooks(200);

/// The one end is ours, the other the program's.
struct Ends
{
    UniqueFd ours;
    UniqueFd theirs;
};

/// @return no ends, with errno telling why, when there is none to be had
Ends makePipe()
{
    int pair[2] = {-1, -1};
    const bool isMade = pipe2(pair, O_CLOEXEC) == 0;
    return isMade ? Ends{UniqueFd(pair[0]), UniqueFd(pair[1])} : Ends();
}

/// Not a pipe: a program that does not read its input must not cost this process a SIGPIPE.
Ends makeSocketPair()
{
    int pair[2] = {-1, -1};
    const bool isMade = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0;
    return isMade ? Ends{UniqueFd(pair[0]), UniqueFd(pair[1])} : Ends();
}

/// @param texts  have to outlive what is returned
std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

class FilterProgram
{
public:
    explicit FilterProgram(const ProgramCall& call)
        : call_(call), end_(call.longest ? Clock::now() + *call.longest : Clock::time_point::max())
    {
    }
    ~FilterProgram() { killNow(); }
    FilterProgram(const FilterProgram&) = delete;
    FilterProgram& operator=(const FilterProgram&) = delete;

    ProgramEnd run(const SecretBytes& input, SecretBytes& output);

private:
    int start();
    bool transfer(const SecretBytes& input);
    bool waitForEnd();
    bool hasEnded() const;
    void await();
    void sendSome(const SecretBytes& input);
    void receiveOutput();
    void receiveComplaint();
    void killNow();

    const ProgramCall& call_;
    const Clock::time_point end_;
    pid_t child_ = -1;
    int status_ = -1;
    UniqueFd input_;
    UniqueFd outputEnd_;
    UniqueFd complaintEnd_;
    std::size_t sent_ = 0;
    SecretBytes output_;
    std::string complaint_;
    bool tooMuch_ = false;
};

/// @return an error number, 0 when it runs
int FilterProgram::start()
{
    // In this order, no end that is still needed has the number of a standard stream by the time
    // that stream is put in place, also in a process that has none of them.
    Ends input = makeSocketPair();
    Ends output = call_.outputLimit ? makePipe() : Ends();
    Ends complaints = makePipe();
    if (!input.ours || (call_.outputLimit && !output.ours) || !complaints.ours) {
        return errno;
    }
    posix_spawn_file_actions_t actions = {};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.theirs.get(), STDIN_FILENO);
    if (call_.outputLimit) {
        posix_spawn_file_actions_adddup2(&actions, output.theirs.get(), STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_adddup2(&actions, complaints.theirs.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, kFirstAboveStandard);
    if (!call_.directory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, call_.directory.c_str());
    }

    sigset_t signals;
    posix_spawnattr_t attributes = {};
    posix_spawnattr_init(&attributes);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    const int group = call_.longest ? POSIX_SPAWN_SETPGROUP : 0;
    posix_spawnattr_setflags(
        &attributes, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | group));

    std::vector<std::string> words = call_.words;
    std::vector<std::string> environment = call_.environment;
    const int error = posix_spawn(&child_, call_.path.c_str(), &actions, &attributes,
                                  pointersTo(words).data(), pointersTo(environment).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        child_ = -1;
        return error;
    }
    input_ = std::move(input.ours);
    outputEnd_ = std::move(output.ours);
    complaintEnd_ = std::move(complaints.ours);
    return 0;
}

/// @return false when the time is over or the program writes too much
bool FilterProgram::transfer(const SecretBytes& input)
{
    output_.reserve(call_.outputLimit ? *call_.outputLimit + 1 : 0);
    while (outputEnd_ || complaintEnd_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        // A negative descriptor is passed over.
        pollfd waiting[] = {{input_.get(), POLLOUT, 0},
                            {outputEnd_.get(), POLLIN, 0},
                            {complaintEnd_.get(), POLLIN, 0}};
        const bool ended = hasEnded();
        const auto pause = ended ? left.zero() : std::min(left, kBetweenQuietLooks);
        const int ready = poll(waiting, 3, static_cast<int>(pause.count()));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        // What it has started may keep its streams open for longer than it runs itself.
        if (ready == 0 && ended) {
            return true;
        }
        if (waiting[0].revents != 0) {
            sendSome(input);
        }
        if (waiting[1].revents != 0) {
            receiveOutput();
        }
        if (waiting[2].revents != 0) {
            receiveComplaint();
        }
        if (tooMuch_) {
            return false;
        }
    }
    return true;
}

void FilterProgram::sendSome(const SecretBytes& input)
{
    const ssize_t count =
        send(input_.get(), input.data() + sent_, input.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    sent_ += count > 0 ? static_cast<std::size_t>(count) : 0;
    if (count < 0 || sent_ == input.size()) {
        input_ = UniqueFd();  // its end is what the program waits for
    }
}

void FilterProgram::receiveOutput()
{
    const std::size_t limit = *call_.outputLimit;
    const std::size_t filled = output_.size();
    output_.resize(limit + 1);
    const ssize_t count = read(outputEnd_.get(), output_.data() + filled, output_.size() - filled);
    output_.resize(filled + (count > 0 ? static_cast<std::size_t>(count) : 0));
    tooMuch_ = output_.size() > limit;
    if (count == 0 || (count < 0 && errno != EINTR)) {
        outputEnd_ = UniqueFd();
    }
}

void FilterProgram::receiveComplaint()
{
    char text[256];
    const ssize_t count = read(complaintEnd_.get(), text, sizeof text);
    if (count == 0 || (count < 0 && errno != EINTR)) {
        complaintEnd_ = UniqueFd();
    }
    // What a program says last is why it ends.
    complaint_.append(text, count > 0 ? static_cast<std::size_t>(count) : 0);
    complaint_.erase(0, complaint_.size() - std::min(complaint_.size(), kLongestComplaint));
}

/// Leaves its end to be awaited: until then its group can be killed.
bool FilterProgram::hasEnded() const
{
    siginfo_t end = {};
    return waitid(P_PID, static_cast<id_t>(child_), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           end.si_pid == child_;
}

bool FilterProgram::waitForEnd()
{
    while (!hasEnded()) {
        if (Clock::now() >= end_) {
            return false;
        }
        poll(nullptr, 0, kMillisecondsBetweenLooks);
    }
    await();
    return true;
}

void FilterProgram::await()
{
    uninterrupted([this] { return waitpid(child_, &status_, 0); });
    child_ = -1;
}

void FilterProgram::killNow()
{
    if (child_ < 0) {
        return;
    }
    kill(call_.longest ? -child_ : child_, SIGKILL);
    await();
}

std::string describe(int status)
{
    if (WIFSIGNALED(status)) {
        return " was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return WIFEXITED(status) ? " failed with status " + std::to_string(WEXITSTATUS(status))
                             : " ended in an unknown way";
}

ProgramEnd FilterProgram::run(const SecretBytes& input, SecretBytes& output)
{
    const std::string& path = call_.path;
    if (const int error = start()) {
        return {path + " cannot be started: " + std::strerror(error), ""};
    }
    const bool done = transfer(input) && waitForEnd();
    if (tooMuch_) {
        return {path + " writes more than " + std::to_string(*call_.outputLimit) + " bytes", ""};
    }
    if (!done) {
        const auto longest = call_.longest.value_or(std::chrono::milliseconds::zero());
        return {path + " is not done after " + std::to_string(longest.count()) + " ms", complaint_};
    }
    if (status_ != 0) {
        return {path + describe(status_), complaint_};
    }
    output = std::move(output_);
    return {"", complaint_};
}

}  // namespace

ProgramEnd runPiped(const ProgramCall& call, const SecretBytes& input, SecretBytes& output)
{
    return FilterProgram(call).run(input, output);
}

}  // namespace quillon
