#include "caller-names.h"

#include <grp.h>
#include <pwd.h>

#include <cstdlib>

namespace quillon::privileged {

namespace {

std::optional<unsigned> numberOf(const std::string& text)
{
    constexpr unsigned long kNobody = static_cast<uid_t>(-1);
    const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == text.npos;
    const unsigned long number = isNumber ? std::strtoul(text.c_str(), nullptr, 10) : kNobody;
    return number < kNobody ? std::optional(static_cast<unsigned>(number)) : std::nullopt;
}

}  // namespace

std::optional<uid_t> userNamed(const std::string& name)
{
    const passwd* entry = getpwnam(name.c_str());
    return entry != nullptr ? entry->pw_uid : numberOf(name);
}

std::optional<gid_t> groupNamed(const std::string& name)
{
    const group* entry = getgrnam(name.c_str());
    return entry != nullptr ? entry->gr_gid : numberOf(name);
}

}  // namespace quillon::privileged
