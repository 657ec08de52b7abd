#include "support/record-file.h"

#include <fcntl.h>
#include <json/json.h>

#include <mutex>
#include <sstream>

namespace quillon {
namespace {

constexpr mode_t kMode = 0644;

}  // namespace

std::string lineOf(const Json::Value& object)
{
    // Making a writer costs more than writing a line. It is never destroyed: threads of modules may
    // run until the process has ended.
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    static Json::StreamWriter& writer = *[] {
        Json::StreamWriterBuilder style;
        style["indentation"] = "";
        style["precision"] = 3;
        style["precisionType"] = "decimal";
        return style.newStreamWriter();
    }();
    std::ostringstream text;
    writer.write(object, &text);
    text << '\n';
    return text.str();
}

UniqueFd openForLines(const std::string& path, int flags, struct stat& opened)
{
    constexpr int kFlags = O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file(open(path.c_str(), kFlags | flags, kMode));
    if (file && (fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode))) {
        file.reset();
    }
    return file;
}

}  // namespace quillon
