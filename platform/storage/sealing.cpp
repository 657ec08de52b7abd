#include "platform/storage/sealing.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include "base/piped-program.h"
#include "platform/storage/provisioning-content.h"

namespace quillon {

namespace {

constexpr char kProgram[] = QUILLON_SYSTEMD_CREDS;
// A TPM may take seconds. Reading and writing one item each fit into the 30 s that a client waits.
constexpr std::chrono::seconds kLongestSealing(QUILLON_SEALING_SECONDS);

std::string asOneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '\n', ';');
    return text.empty() ? text : ": " + text;
}

/// With an empty environment. @return nothing, or one line that says why it failed
std::string runProgram(const std::vector<std::string>& arguments, const SecretBytes& input,
                       std::size_t limit, SecretBytes& output)
{
    ProgramCall call{kProgram, {kProgram}, {}, {}, limit, kLongestSealing};
    call.words.insert(call.words.end(), arguments.begin(), arguments.end());
    const ProgramEnd end = runPiped(call, input, output);
    return end.failure.empty() ? "" : end.failure + asOneLine(end.complaint);
}

}  // namespace

bool sealingIsThere()
{
    return access(kProgram, F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::string seal(const std::string& item, const SecretBytes& plain, SecretBytes& sealed)
{
    return runProgram({"encrypt", "--with-key=auto", "--name=" + item, "-", "-"}, plain,
                      kLargestSealed, sealed);
}

std::string unseal(const std::string& item, const SecretBytes& sealed, SecretBytes& plain)
{
    return runProgram({"decrypt", "--name=" + item, "-", "-"}, sealed, kLargestItem, plain);
}

}  // namespace quillon
