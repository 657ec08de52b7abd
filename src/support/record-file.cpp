#include "support/record-file.h"

#include <fcntl.h>
#include <json/json.h>

#include <memory>
#include <sstream>

namespace quillon {
namespace {

constexpr mode_t kMode = 0644;

}  // namespace

std::string lineOf(const Json::Value& object)
{
    // To make a writer costs more than to write a line.
    static thread_local const std::unique_ptr<Json::StreamWriter> kWriter = [] {
        Json::StreamWriterBuilder style;
        style["indentation"] = "";
        style["precision"] = 3;
        style["precisionType"] = "decimal";
        return std::unique_ptr<Json::StreamWriter>(style.newStreamWriter());
    }();
    std::ostringstream text;
    kWriter->write(object, &text);
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
