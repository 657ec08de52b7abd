#include "tools/quillon-image/run-program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr char kSystemFolders[] = ":/usr/sbin:/sbin";
constexpr std::size_t kLongestComplaint = 400;

[[noreturn]] void refuse(const std::string& reason)
{
    throw ImageError(ImageFault::File, reason);
}

std::string find(const Program& program)
{
    const char* const path = std::getenv("PATH");
    std::istringstream folders((path == nullptr ? "" : path) + std::string(kSystemFolders));
    for (std::string folder; std::getline(folders, folder, ':');) {
        std::string candidate = folder + "/" + program.name;
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    refuse(std::string(program.name) + " is missing: install the package " + program.package);
}

/// Receives what a program says on its standard error.
class Complaints
{
public:
    Complaints() : _descriptor(memfd_create("complaints", MFD_CLOEXEC))
    {
        if (_descriptor < 0) {
            refuse(std::string("no memory for a program's messages: ") + std::strerror(errno));
        }
    }

    ~Complaints() { close(_descriptor); }
    Complaints(const Complaints&) = delete;
    Complaints& operator=(const Complaints&) = delete;

    int descriptor() const { return _descriptor; }

    /// @return all of it as one line, without the line in which a program introduces itself.
    std::string text(const std::string& program) const
    {
        std::string said(kLongestComplaint, '\0');
        const ssize_t length = pread(_descriptor, said.data(), said.size(), 0);
        said.resize(length > 0 ? static_cast<std::size_t>(length) : 0);

        std::istringstream lines(said);
        std::string text;
        for (std::string line; std::getline(lines, line);) {
            const bool introduction = line.compare(0, program.size() + 1, program + " ") == 0;
            if (!introduction && line.find_first_not_of(" \t\r") != std::string::npos) {
                text += (text.empty() ? "" : "; ") + line;
            }
        }
        return text;
    }

private:
    int _descriptor;
};

/// How the program is started: its standard streams, its folder and its signals.
class StartConditions
{
public:
    StartConditions(const std::string& folder, int standardError)
    {
        posix_spawn_file_actions_init(&_actions);
        posix_spawn_file_actions_addopen(&_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&_actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&_actions, standardError, STDERR_FILENO);
        posix_spawn_file_actions_addchdir_np(&_actions, folder.c_str());

        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&_attributes);
        posix_spawnattr_setsigmask(&_attributes, &none);
        posix_spawnattr_setflags(&_attributes, POSIX_SPAWN_SETSIGMASK);
    }

    ~StartConditions()
    {
        posix_spawnattr_destroy(&_attributes);
        posix_spawn_file_actions_destroy(&_actions);
    }

    StartConditions(const StartConditions&) = delete;
    StartConditions& operator=(const StartConditions&) = delete;

    const posix_spawn_file_actions_t* actions() const { return &_actions; }
    const posix_spawnattr_t* attributes() const { return &_attributes; }

private:
    posix_spawn_file_actions_t _actions{};
    posix_spawnattr_t _attributes{};
};

std::vector<std::string> environmentWith(const std::vector<std::string>& variables)
{
    std::vector<std::string> environment = variables;
    environment.emplace_back("LC_ALL=C");
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (text.rfind("SOURCE_DATE_EPOCH=", 0) != 0 && text.rfind("LC_ALL=", 0) != 0) {
            environment.push_back(text);
        }
    }
    return environment;
}

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

int waitFor(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            refuse(std::string("a program's end cannot be awaited: ") + std::strerror(errno));
        }
    }
    return status;
}

std::string describe(int status)
{
    return WIFSIGNALED(status) ? "was ended by signal " + std::to_string(WTERMSIG(status))
                               : "failed with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void runProgram(const Program& program, const std::vector<std::string>& arguments,
                const std::string& folder, const std::vector<std::string>& variables)
{
    const std::string path = find(program);
    std::vector<std::string> words = {program.name};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = environmentWith(variables);

    const Complaints complaints;
    const StartConditions start(folder, complaints.descriptor());
    pid_t child = 0;
    const int error = posix_spawn(&child, path.c_str(), start.actions(), start.attributes(),
                                  pointersTo(words).data(), pointersTo(environment).data());
    if (error != 0) {
        refuse(path + ": cannot be started: " + std::strerror(error));
    }

    const int status = waitFor(child);
    const std::string said = complaints.text(program.name);
    if (status != 0) {
        refuse(path + " " + describe(status) + (said.empty() ? "" : ": " + said));
    }
    if (program.endsWellAnyway && !said.empty()) {
        refuse(path + " failed: " + said);
    }
}

}  // namespace quillon
