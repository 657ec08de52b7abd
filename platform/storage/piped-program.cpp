#include "platform/storage/piped-program.h"

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
#include <optional>
#include <utility>

#include "base/fd.h"

namespace quillon {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestComplaint = 400;
constexpr int kFirstAboveStandard = 3;
constexpr int kMillisecondsBetweenLooks = 2;

std::string withErrno(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

/// The one end is ours, the other the program's.
struct Ends
{
    UniqueFd ours;
    UniqueFd theirs;
};

bool makePipe(Ends& ends)
{
    int pair[2] = {-1, -1};
    if (pipe2(pair, O_CLOEXEC) != 0) {
        return false;
    }
    ends.ours = UniqueFd(pair[0]);
    ends.theirs = UniqueFd(pair[1]);
    return true;
}

/// Not a pipe: a program that does not read its input must not cost this process a SIGPIPE.
bool makeSocketPair(Ends& ends)
{
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return false;
    }
    ends.ours = UniqueFd(pair[0]);
    ends.theirs = UniqueFd(pair[1]);
    return true;
}

class FilterProgram
{
public:
    FilterProgram() = default;
    ~FilterProgram() { killNow(); }
    FilterProgram(const FilterProgram&) = delete;
    FilterProgram& operator=(const FilterProgram&) = delete;

    /// @return an error number, 0 when it runs
    int start(const std::vector<std::string>& command);
    bool transfer(const SecretBytes& input, std::size_t limit, Clock::time_point end);
    bool waitForEnd(Clock::time_point end);

    int status() const { return status_; }
    SecretBytes takeOutput() { return std::move(output_); }
    const std::string& complaint() const { return complaint_; }
    bool hasTooMuch() const { return tooMuch_; }

private:
    void sendSome(const SecretBytes& input);
    void receiveOutput(std::size_t limit);
    void receiveComplaint();
    void killNow();

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

int FilterProgram::start(const std::vector<std::string>& command)
{
    Ends input;
    Ends output;
    Ends complaints;
    // In this order, no end that is still needed has the number of a standard stream by the time
    // that stream is put in place, also in a process that has none of them.
    if (!makeSocketPair(input) || !makePipe(output) || !makePipe(complaints)) {
        return errno;
    }
    posix_spawn_file_actions_t actions = {};
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.theirs.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.theirs.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, complaints.theirs.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, kFirstAboveStandard);

    sigset_t signals;
    posix_spawnattr_t attributes = {};
    posix_spawnattr_init(&attributes);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    char* noEnvironment[] = {nullptr};
    const int error = posix_spawn(&child_, command.front().c_str(), &actions, &attributes,
                                  arguments.data(), noEnvironment);
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
bool FilterProgram::transfer(const SecretBytes& input, std::size_t limit, Clock::time_point end)
{
    output_.reserve(limit + 1);
    while (outputEnd_ || complaintEnd_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        // A negative descriptor is passed over.
        pollfd waiting[] = {{input_.get(), POLLOUT, 0},
                            {outputEnd_.get(), POLLIN, 0},
                            {complaintEnd_.get(), POLLIN, 0}};
        if (poll(waiting, 3, static_cast<int>(left)) < 0 && errno != EINTR) {
            return false;
        }
        if (waiting[0].revents != 0) {
            sendSome(input);
        }
        if (waiting[1].revents != 0) {
            receiveOutput(limit);
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

void FilterProgram::receiveOutput(std::size_t limit)
{
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

bool FilterProgram::waitForEnd(Clock::time_point end)
{
    for (;;) {
        const pid_t ended = waitpid(child_, &status_, WNOHANG);
        if (ended == child_ || (ended < 0 && errno != EINTR)) {
            status_ = ended == child_ ? status_ : -1;
            child_ = -1;
            return true;
        }
        if (Clock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, kMillisecondsBetweenLooks);
    }
}

void FilterProgram::killNow()
{
    if (child_ < 0) {
        return;
    }
    kill(-child_, SIGKILL);
    while (waitpid(child_, &status_, 0) < 0 && errno == EINTR) {
    }
    child_ = -1;
}

std::string oneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    for (char& c : text) {
        c = c == '\n' ? ';' : c;
    }
    return text.empty() ? text : ": " + text;
}

std::string describe(int status)
{
    if (WIFSIGNALED(status)) {
        return " was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return WIFEXITED(status) ? " failed with status " + std::to_string(WEXITSTATUS(status))
                             : " ended in an unknown way";
}

}  // namespace

std::string runPiped(const std::vector<std::string>& command, const SecretBytes& input,
                     std::size_t limit, std::chrono::milliseconds longest, SecretBytes& output)
{
    const std::string& name = command.front();
    const Clock::time_point end = Clock::now() + longest;
    FilterProgram program;
    if (const int error = program.start(command)) {
        errno = error;
        return withErrno(name + " cannot be started");
    }
    const bool done = program.transfer(input, limit, end) && program.waitForEnd(end);
    if (program.hasTooMuch()) {
        return name + " writes more than " + std::to_string(limit) + " bytes";
    }
    if (!done) {
        return name + " is not done after " + std::to_string(longest.count()) + " ms" +
               oneLine(program.complaint());
    }
    if (program.status() != 0) {
        return name + describe(program.status()) + oneLine(program.complaint());
    }
    output = program.takeOutput();
    return "";
}

}  // namespace quillon
