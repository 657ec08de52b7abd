#include "helpers/shared/caller-options.h"

#include <getopt.h>
#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <iostream>
#include <system_error>

namespace quillon {

namespace {

constexpr int kWrongUsage = 2;

std::optional<unsigned> numberOf(const std::string& text)
{
    constexpr unsigned kNobody = static_cast<uid_t>(-1);
    unsigned number = kNobody;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool isNumber = error == std::errc() && stop == end && number != kNobody;
    return isNumber ? std::optional(number) : std::nullopt;
}

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

/// @return the exit status: 1 when the text could not be written
int print(const char* program, const std::string& text)
{
    constexpr int kFailed = 1;
    if (!(std::cout << text << std::flush)) {
        return complain(program, kFailed, "standard output could not be written");
    }
    return 0;
}

}  // namespace

int complain(const char* program, int status, const std::string& line)
{
    std::cerr << program + (": " + line) + "\n";
    return status;
}

std::optional<int> parseCallerOptions(int argc, char** argv, const char* program, const char* help,
                                      Callers& callers)
{
    const option options[] = {{"user", required_argument, nullptr, 'u'},
                              {"group", required_argument, nullptr, 'g'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int letter = 0; (letter = getopt_long(argc, argv, "u:g:hV", options, nullptr)) != -1;) {
        switch (letter) {
            case 'u':
                callers.user = userNamed(optarg);
                if (!callers.user) {
                    return complain(program, kWrongUsage, std::string("no such user: ") + optarg);
                }
                break;
            case 'g':
                callers.group = groupNamed(optarg);
                if (!callers.group) {
                    return complain(program, kWrongUsage, std::string("no such group: ") + optarg);
                }
                break;
            case 'h':
                return print(program, help);
            case 'V':
                return print(program, std::string(program) + " " QUILLON_VERSION "\n");
            default:
                return complain(
                    program, kWrongUsage,
                    std::string("wrong option or no value: ") + argv[optind - 1] + "; see --help");
        }
    }
    if (optind < argc) {
        return complain(program, kWrongUsage,
                        std::string("what is ") + argv[optind] + "? see --help");
    }
    return std::nullopt;
}

}  // namespace quillon
