#include "gate/counts.h"

#include <gnu/libc-version.h>
#include <json/version.h>
#include <openssl/opensslv.h>
#include <sys/utsname.h>
#include <boost/version.hpp>
#include <cmath>

#include <algorithm>
#include <iomanip>
#include <set>
#include <sstream>
#include <stdexcept>

namespace quillon::bench {
namespace {

constexpr const char* kKinds[] = {"instructions", "allocations"};

std::string compiler()
{
#if defined(__clang__)
    return "Clang " + std::to_string(__clang_major__);
#else
    return "GCC " + std::to_string(__GNUC__) + "." + std::to_string(__GNUC_MINOR__);
#endif
}

std::uint64_t numberAfter(const std::string& text, const std::string& word)
{
    const std::size_t place = text.find(word);
    if (place == std::string::npos) {
        throw std::runtime_error("no count: " + text);
    }
    std::istringstream rest(text.substr(place + word.size()));
    std::uint64_t number = 0;
    if (!(rest >> number)) {
        throw std::runtime_error("no count: " + text);
    }
    return number;
}

bool isWithin(std::uint64_t counted, std::uint64_t recorded)
{
    const auto difference = static_cast<double>(counted) - static_cast<double>(recorded);
    return std::fabs(difference) <= kTolerance * static_cast<double>(recorded);
}

Held hold(const std::string& path, const char* kind, const Json::Value& recorded,
          const Json::Value& counted)
{
    Held held;
    held.path = path;
    held.kind = kind;
    const bool inBoth = recorded.isMember(path) && counted.isMember(path);
    held.recorded = recorded[path][kind].asUInt64();
    held.counted = counted[path][kind].asUInt64();
    held.isHeld = inBoth && isWithin(held.counted, held.recorded);
    return held;
}

std::string change(const Held& held)
{
    if (held.recorded == 0) {
        return held.counted == 0 ? "" : "new";
    }
    const double share =
        (static_cast<double>(held.counted) / static_cast<double>(held.recorded) - 1) * 100;
    std::ostringstream text;
    text << std::showpos << std::fixed << std::setprecision(1) << share << " %";
    return text.str();
}

}  // namespace

Json::Value thisToolchain()
{
    utsname system = {};
    static_cast<void>(uname(&system));
    Json::Value toolchain;
    toolchain["architecture"] = system.machine;
    toolchain["compiler"] = compiler();
    toolchain["C library"] = gnu_get_libc_version();
    toolchain["OpenSSL"] =
        std::to_string(OPENSSL_VERSION_MAJOR) + "." + std::to_string(OPENSSL_VERSION_MINOR);
    toolchain["jsoncpp"] = JSONCPP_VERSION_STRING;
    toolchain["Boost"] = BOOST_LIB_VERSION;
    toolchain["build type"] = QUILLON_BUILD_TYPE;
    return toolchain;
}

std::string toolchainDifference(const Json::Value& recorded, const Json::Value& here)
{
    std::string differences;
    for (const std::string& name : here.getMemberNames()) {
        if (recorded[name] != here[name]) {
            differences += (differences.empty() ? "" : ", ") + name + " " + here[name].asString() +
                           " instead of " + recorded[name].asString();
        }
    }
    return differences;
}

std::uint64_t instructionsIn(const std::string& output)
{
    return numberAfter(output, "Collected :");
}

std::uint64_t allocationsIn(const std::string& output)
{
    return numberAfter(output, "allocations");
}

std::vector<Held> holdAgainst(const Json::Value& recorded, const Json::Value& counted)
{
    std::set<std::string> paths;
    for (const Json::Value* counts : {&recorded, &counted}) {
        for (const std::string& path : counts->getMemberNames()) {
            paths.insert(path);
        }
    }
    std::vector<Held> all;
    for (const std::string& path : paths) {
        for (const char* kind : kKinds) {
            all.push_back(hold(path, kind, recorded, counted));
        }
    }
    return all;
}

std::string toText(const std::vector<Held>& held)
{
    std::ostringstream text;
    for (const Held& line : held) {
        text << std::left << std::setw(30) << line.path << std::setw(14) << line.kind << std::right
             << std::setw(12) << line.recorded << std::setw(12) << line.counted << std::setw(10)
             << change(line) << (line.isHeld ? "" : "  NOT HELD") << '\n';
    }
    return text.str();
}

}  // namespace quillon::bench
