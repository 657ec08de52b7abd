// Usage: module-test MODULE PAYLOAD. What the service asks of a module, asked in its order. The
// payload is named after the firmware, as an image is.

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "../component.h"
#include "fw-update-plugin.h"

namespace {

int failures = 0;

void expect(bool good, const char* sentence)
{
    if (!good) {
        ++failures;
        std::cerr << "failed: " << sentence << "\n";
    }
}

std::string readAll(const char* path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string activeVersion()
{
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    expect(getActiveVersion(text) == 0, "the version can be read");
    return text;
}

bool needs(const char* version)
{
    char argument[] = "";
    int need = -1;
    expect(setContext("module", CALLER_USB_IMAGE, argument) == 0, "the context is taken");
    expect(checkVersion(version, &need) == 0, "a version can be judged");
    return need == 1;
}

void testLibrary(const char* path)
{
    void* const library = dlopen(path, RTLD_NOW);
    if (library == nullptr) {
        expect(false, dlerror());
        return;
    }
    for (const char* entry :
         {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate", "allUpdateDone",
          "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"}) {
        expect(dlsym(library, entry) != nullptr, entry);
    }
    expect(dlclose(library) == 0, "the library can be closed");
}

bool isLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

void testIdentifier(const std::string& firmwareName)
{
    char text[FW_PLUGIN_TEXT_SIZE] = {};
    expect(getEMPID(text) == 0, "the identifier can be read");
    expect(std::memchr(text, '\0', sizeof(text)) != nullptr, "the identifier has an end");
    std::string identifier(text, strnlen(text, sizeof(text)));
    expect(std::all_of(identifier.begin(), identifier.end(), isLetterOrDigit),
           "the identifier has letters and digits only");
    const std::size_t emp = identifier.find("emp");
    expect(emp != std::string::npos && identifier.find("emp", emp + 1) == std::string::npos,
           "the identifier contains \"emp\" once");
    expect(identifier.erase(std::min(emp, identifier.size()), 3) == firmwareName,
           "the identifier without \"emp\" is the name of the payload");
    int seconds = 0;
    expect(getExpectedTime(&seconds) == 0 && seconds > 0, "an update takes a known time");
}

void testVersionTexts()
{
    int need = -1;
    expect(checkVersion("", &need) != 0, "no text is no version");
    expect(checkVersion("1.\x8f\x02", &need) != 0, "noise from a wrong key is no version");
    const std::string endless(FW_PLUGIN_TEXT_SIZE, '1');
    expect(checkVersion(endless.c_str(), &need) != 0, "a version too long to keep is refused");
}

void testUpdateFromStick(const std::string& payload)
{
    expect(needs("1.0"), "a fresh component needs a version");
    const auto* data = reinterpret_cast<const unsigned char*>(payload.data());
    expect(doUpdate_decryption(data, 0) != 0, "an empty payload is refused");
    expect(activeVersion() == "0", "a refused payload changes nothing");
    expect(doUpdate_decryption(data, static_cast<int>(payload.size())) == 0, "a payload is taken");
    expect(activeVersion() == "1.0", "the version is the one that was offered");
    expect(readAll(COMPONENT_DIRECTORY "/firmware.bin") == payload, "the firmware is the payload");
    expect(!needs("1.0"), "the same version is not needed again");
}

void testUpdateFromPackage(const char* path)
{
    expect(needs("2.0"), "another version is needed");
    expect(doUpdate("/nowhere", 0) != 0, "a payload that is not there is refused");
    expect(doUpdate(path, 0) == 0, "a payload is taken from its file");
    expect(activeVersion() == "2.0", "the version is the one that was offered");
    unsigned int percent = 0;
    expect(getUpdateProgress(&percent) == 0 && percent == 100, "the progress ends at 100");
    expect(allUpdateDone() == 0, "the run can end");
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: module-test MODULE PAYLOAD\n";
        return 2;
    }
    std::filesystem::remove_all(COMPONENT_DIRECTORY);
    testLibrary(argv[1]);
    testIdentifier(std::filesystem::path(argv[2]).stem());
    testVersionTexts();
    testUpdateFromStick(readAll(argv[2]));
    testUpdateFromPackage(argv[2]);
    return failures == 0 ? 0 : 1;
}
