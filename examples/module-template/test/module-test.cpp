// Usage: lamp-test MODULE PAYLOAD. What the service asks of a module, asked in its order.

#include <dlfcn.h>

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
    expect(setContext("lamp", CALLER_USB_IMAGE, argument) == 0, "the context is taken");
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

void testIdentifier()
{
    char identifier[FW_PLUGIN_TEXT_SIZE] = {};
    expect(getEMPID(identifier) == 0, "the identifier can be read");
    expect(std::strstr(identifier, "emp") != nullptr, "the identifier contains \"emp\"");
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
    expect(readAll(LAMP_DIRECTORY "/firmware.bin") == payload, "the firmware is the payload");
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
        std::cerr << "usage: lamp-test MODULE PAYLOAD\n";
        return 2;
    }
    std::filesystem::remove_all(LAMP_DIRECTORY);
    testLibrary(argv[1]);
    testIdentifier();
    testVersionTexts();
    testUpdateFromStick(readAll(argv[2]));
    testUpdateFromPackage(argv[2]);
    return failures == 0 ? 0 : 1;
}
