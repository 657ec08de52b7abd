#include "tools/quillon-image/run-program.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "base/piped-program.h"
#include "platform/verifier/image-error.h"

namespace quillon {
namespace {

constexpr char kSystemDirectories[] = ":/usr/sbin:/sbin";

[[noreturn]] void refuse(const std::string& reason)
{
    throw ImageError(ImageFault::kFile, reason);
}

std::string find(const Program& program)
{
    const char* const path = std::getenv("PATH");
    std::istringstream directories((path == nullptr ? "" : path) + std::string(kSystemDirectories));
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::string candidate = directory + "/" + program.name;
        if (!directory.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    refuse(std::string(program.name) + " is missing: install the package " + program.package);
}

/// @return all of what it said as one line, without the line in which a program introduces itself.
std::string asOneLine(const std::string& said, const std::string& program)
{
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

}  // namespace

void runProgram(const Program& program, const std::vector<std::string>& arguments,
                const std::string& directory, const std::vector<std::string>& variables)
{
    ProgramCall call{find(program), {program.name}, environmentWith(variables), directory, {}, {}};
    call.words.insert(call.words.end(), arguments.begin(), arguments.end());
    SecretBytes none;
    const ProgramEnd end = runPiped(call, none, none);
    const std::string said = asOneLine(end.complaint, program.name);
    if (!end.failure.empty()) {
        refuse(end.failure + (said.empty() ? "" : ": " + said));
    }
    if (program.endsWellAnyway && !said.empty()) {
        refuse(call.path + " failed: " + said);
    }
}

}  // namespace quillon
