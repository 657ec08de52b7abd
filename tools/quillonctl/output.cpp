#include "tools/quillonctl/output.h"

#include <json/writer.h>
#include <poll.h>
#include <unistd.h>

#include <iostream>

namespace quillon {

Json::Value jsonObject(const JsonMembers& members)
{
    Json::Value object(Json::objectValue);
    for (const auto& [name, value] : members) {
        if (!value.isNull()) {
            object[name] = value;
        }
    }
    return object;
}

void Output::letGo()
{
    isHeldBack_ = false;
    put("");
}

void Output::put(const std::string& text)
{
    held_ += text;
    if (!isHeldBack_ || isRead()) {
        std::cout << held_ << std::flush;
        held_.clear();
    }
}

bool Output::isRead()
{
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return poll(&output, 1, 0) != 0;
}

void Output::say(const char* name, const JsonMembers& members, const std::string& text)
{
    event(name, members);
    line(text);
}

void Output::error(ExitCode code, const std::string& text)
{
    event("error", {{"exitCode", code}, {"text", text}});
    if (!forPrograms_) {
        complain(text);
    }
}

void Output::warning(const std::string& text)
{
    event("warning", {{"text", text}});
    complain("warning: " + text);
}

void Output::event(const char* name, const JsonMembers& members)
{
    if (!forPrograms_) {
        return;
    }
    Json::Value object = jsonObject(members);
    object["event"] = name;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    put(Json::writeString(builder, object) + "\n");
}

void Output::line(const std::string& text)
{
    if (!forPrograms_ && !quiet_) {
        put(display_.end() + text + "\n");
    }
}

void Output::advice(const std::string& text)
{
    if (!forPrograms_ && !quiet_) {
        complain(text);
    }
}

void Output::progress(int percent, int secondsLeft)
{
    const bool wouldWait = isHeldBack_ && !isRead();
    if (!forPrograms_ && !quiet_ && !wouldWait) {
        put(display_.show(percent, secondsLeft, terminalWidth()));
    }
}

void Output::complain(const std::string& text)
{
    put(display_.end());
    std::cerr << "quillonctl: " << text << std::endl;
}

}  // namespace quillon
