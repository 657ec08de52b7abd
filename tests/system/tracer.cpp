#include "system/tracer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "support/files.h"
#include "support/process.h"
#include "system/daemon.h"

namespace quillon::test {
namespace {

constexpr const char* kScript = "/tmp/quillon-test-tracer.gdb";
constexpr const char* kOutput = "/tmp/quillon-test-tracer.out";
constexpr const char* kHit = "HIT ";

// gdb knows the arguments' places and sizes from the probe's note, not from debugging information.
constexpr const char* kCommands = R"(set confirm off
set debuginfod enabled off
info probes stap quillon
break -probe-stap quillon:log
commands
silent
printf "HIT %d|%s|%s|%s|%d|%s|\n", $_probe_arg0, (char*)$_probe_arg1, (char*)$_probe_arg2, (char*)$_probe_arg3, $_probe_arg4, (char*)$_probe_arg5
continue
end
echo ARMED\n
continue
delete
detach
)";

[[noreturn]] void becomeGdb(pid_t process)
{
    const int nothing = ::open("/dev/null", O_RDONLY);
    const int file = ::open(kOutput, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    const std::string number = std::to_string(process);
    ::execlp("gdb", "gdb", "-nx", "-batch", "-p", number.c_str(), "-x", kScript,
             static_cast<char*>(nullptr));
    ::_exit(127);
}

bool has(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace

bool Tracer::installed()
{
    return succeeds("command -v gdb");
}

std::string Tracer::attachTo(pid_t process)
{
    std::ofstream(kScript) << kCommands;
    std::ofstream(kOutput).close();
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeGdb(process);
    }
    eventually([&] { return !runs() || has(output(), "ARMED"); }, std::chrono::seconds(60));
    const std::string said = output();
    if (has(said, "ptrace: Operation not permitted") || has(said, "Could not attach to process")) {
        return "ptrace is refused here";
    }
    if (!has(said, "ARMED")) {
        ADD_FAILURE() << "gdb did not attach:\n" << said;
    }
    return "";
}

std::vector<std::string> Tracer::hits() const
{
    std::vector<std::string> hits;
    for (const std::string& line : linesOf(kOutput, kHit)) {
        hits.push_back(line.substr(line.find(kHit) + std::char_traits<char>::length(kHit)));
    }
    return hits;
}

std::string Tracer::probes() const
{
    const std::vector<std::string> lines = linesOf(kOutput, "stap ");
    return lines.empty() ? "" : lines.front();
}

void Tracer::detach()
{
    if (!runs()) {
        return;
    }
    ::kill(pid_, SIGINT);  // as a person does; on other signals gdb leaves its breakpoint behind
    EXPECT_TRUE(eventually([&] { return !runs(); })) << output();
}

bool Tracer::runs()
{
    if (pid_ == -1 || ::waitpid(pid_, nullptr, WNOHANG) == 0) {
        return pid_ != -1;
    }
    pid_ = -1;
    return false;
}

std::string Tracer::output() const
{
    return readAll(kOutput);
}

}  // namespace quillon::test
