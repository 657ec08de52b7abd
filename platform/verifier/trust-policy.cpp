#include "platform/verifier/trust-policy.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <sstream>
#include <vector>

#include "platform/verifier/hex-text.h"
#include "platform/verifier/image-error.h"
#include "platform/verifier/input-file.h"

namespace quillon {
namespace {

constexpr char kBlanks[] = " \t\r";
constexpr char kFloorPrefix[] = "floor.";
constexpr char kImageSuffix[] = ".bin";

/// Takes a setting over.
/// @return empty, or what is wrong about it and how it should be.
using Taker = std::function<std::string(const std::string& name, const std::string& value)>;

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

std::string trimmed(const std::string& text)
{
    const std::size_t start = text.find_first_not_of(kBlanks);
    const std::size_t end = text.find_last_not_of(kBlanks);
    return start == std::string::npos ? "" : text.substr(start, end - start + 1);
}

/// A link that leads nowhere is there, and cannot be read.
bool isMissing(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

std::string readText(const std::string& path)
{
    try {
        return readSmallFile(path, kLargestTrustFile);
    } catch (const ImageError& error) {
        throw ImageError(error.fault(),
                         std::string(error.what()) + "; it has to be a file that all may read");
    }
}

std::string takeLine(const std::string& line, std::vector<std::string>& seen, const Taker& take)
{
    if (line.find('\r') != std::string::npos) {
        return "a carriage return within the line; end lines with a line feed";
    }
    const std::size_t sign = line.find('=');
    if (sign == std::string::npos) {
        return "not \"SETTING = VALUE\"; correct or remove the line";
    }
    const std::string name = trimmed(line.substr(0, sign));
    if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
        return quoted(name) + " for the second time; remove one of the lines";
    }
    seen.push_back(name);
    return take(name, trimmed(line.substr(sign + 1)));
}

/// Takes nothing when there is no such file.
void readSettings(const std::string& path, const Taker& take)
{
    if (isMissing(path)) {
        return;
    }
    std::istringstream lines(readText(path));
    lines.exceptions(std::ios::badbit);  // else a line that memory lacks for would be the last one
    std::vector<std::string> seen;
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        line = trimmed(line);
        const bool isComment = line.empty() || line.front() == '#';
        if (isComment && line.find('\r') == std::string::npos) {
            continue;
        }
        const std::string defect = takeLine(line, seen, take);
        if (!defect.empty()) {
            std::string fault = path;
            fault.append(":").append(std::to_string(number)).append(": ").append(defect);
            throw ImageError(ImageFault::kFile, fault);
        }
    }
}

std::string takeSwitch(const std::string& value, const char* on, const char* off, bool& to)
{
    to = value == on;
    return to || value == off ? ""
                              : quoted(value) + " has to be " + quoted(on) + " or " + quoted(off);
}

bool isFloor(const std::string& name)
{
    return name.rfind(kFloorPrefix, 0) == 0;
}

std::string takeFloor(const std::string& name, const std::string& value, Floors& floors)
{
    const std::string module = name.substr(sizeof kFloorPrefix - 1);
    if (!isModuleName(module)) {
        return quoted(module) + " has to be a module's name, of ASCII letters and digits";
    }
    return parseFloor(value, floors[module])
               ? ""
               : quoted(value) + " has to be a number from 0 to 4294967295";
}

void requireCheckValue(const CheckValue& found, const std::string& wanted, const char* what,
                       const std::string& path)
{
    const CheckValue right = checkValueOf(wanted);
    if (found != right) {
        throw notSigned(path, std::string("made for another ") + what +
                                  ": the check value of its name is " +
                                  hexText(found.data(), found.size()) + ", that of " +
                                  quoted(wanted) + " is " + hexText(right.data(), right.size()));
    }
}

std::uint32_t floorOf(const Floors& floors, const std::string& module)
{
    const auto floor = floors.find(module);
    return floor == floors.end() ? 0 : floor->second;
}

}  // namespace

TrustPolicy loadTrustPolicy(const std::string& path)
{
    TrustPolicy policy;
    policy.place = path;
    readSettings(path, [&policy](const std::string& name, const std::string& value) -> std::string {
        if (name == "format-1") {
            return takeSwitch(value, "accepted", "refused", policy.acceptsFormat1);
        }
        if (name == "provisioning-purpose") {
            return takeSwitch(value, "required", "optional", policy.requiresProvisioningPurpose);
        }
        if (name == "model") {
            policy.model = value;
            return isModelName(value) ? "" : "a model has 1 to 64 printable ASCII characters";
        }
        if (isFloor(name)) {
            return takeFloor(name, value, policy.floors);
        }
        return "unknown setting " + quoted(name) +
               "; there are format-1, model, provisioning-purpose and floor.MODULE";
    });
    return policy;
}

Floors loadFloors(const std::string& path)
{
    Floors floors;
    readSettings(path, [&floors](const std::string& name, const std::string& value) {
        return isFloor(name) ? takeFloor(name, value, floors)
                             : "unknown setting " + quoted(name) + "; there is floor.MODULE only";
    });
    return floors;
}

std::string moduleOf(const std::string& path)
{
    const std::string file = path.substr(path.rfind('/') + 1);  // the whole path without a '/'
    const std::size_t suffix = sizeof kImageSuffix - 1;
    if (file.size() <= suffix || file.substr(file.size() - suffix) != kImageSuffix) {
        return "";
    }
    const std::string module = file.substr(0, file.size() - suffix);
    return isModuleName(module) ? module : "";
}

ImagePurpose requireAllowed(const ImageTrailer& trailer, const std::string& path,
                            const TrustPolicy& policy)
{
    const std::string module = moduleOf(path);
    const std::uint32_t floor = floorOf(policy.floors, module);
    const auto requireFloor = [&](bool isReached, const std::string& what) {
        if (!isReached) {
            throw notSigned(
                path, "too old: " + what + ", and the module's floor is " + std::to_string(floor));
        }
    };
    if (trailer.format == 1) {
        if (!policy.acceptsFormat1) {
            throw notSigned(path, "trailer has format 1, which " + policy.place + " refuses");
        }
        requireFloor(floor == 0, "trailer of format 1 has no security counter");
        return {};
    }
    if (policy.model.empty()) {
        throw notSigned(path, "trailer has an unknown format: 2 needs the device's model, which " +
                                  policy.place + " does not name");
    }
    if (module.empty()) {
        throw notSigned(path, "made for one module, and this file's name is not that of a module");
    }
    requireCheckValue(trailer.moduleCheck, module, "module", path);
    requireCheckValue(trailer.modelCheck, policy.model, "model", path);
    requireFloor(trailer.counter >= floor,
                 "its security counter is " + std::to_string(trailer.counter));
    return {module, policy.model, trailer.counter};
}

}  // namespace quillon
