// What an ordinary user may put in the place of an information file or an image: it must neither
// hold the control layer up nor fill its memory. The real program with test plug-ins.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>

#include "support/texts.h"
#include "unit/tools/ctl-modules-device.h"

namespace fs = std::filesystem;

using quillon::test::expectNoText;
using quillon::test::like;

struct Place
{
    const char* source;
    const char* directory;
};

// For the tests' names.
void PrintTo(const Place& place, std::ostream* out)
{
    *out << place.source;
}

/// One module, "alpha", for which one source has something to offer.
class CtlModulesSpecialFiles : public CtlModules, public testing::WithParamInterface<Place>
{
protected:
    CtlModulesSpecialFiles()
    {
        install("alpha", "need=1\n");
        offer("alpha", 3, directory());
    }

    static std::string directory() { return std::string(GetParam().directory) + "/"; }
    static std::string path(const std::string& name) { return directory() + "alpha/" + name; }

    static void replaceByFifo(const std::string& name)
    {
        fs::remove(path(name));
        ASSERT_EQ(mkfifo(path(name).c_str(), 0666), 0);
    }
    static void replaceByLink(const std::string& name, const char* target)
    {
        fs::remove(path(name));
        ASSERT_EQ(symlink(target, path(name).c_str()), 0);
    }

    /// That both verbs come to their end and say what is wrong, and nothing is flashed.
    static void expectRefused(const std::string& reason)
    {
        const Json::Value check = json({"check", "--source", GetParam().source}, 7);
        EXPECT_EQ(of("alpha", check)["reason"], reason);
        const Json::Value update = json({"update", "--all", "--source", GetParam().source}, 6);
        EXPECT_EQ(of("alpha", update)["reason"], reason);
        for (const std::string& call : callsOf("alpha")) {
            expectNoText(call, like("*doUpdate(*"));
        }
    }
};

TEST_P(CtlModulesSpecialFiles, AFifoIsNoInformationFile)
{
    replaceByFifo("info.json");
    expectRefused("its information file cannot be read");
}

TEST_P(CtlModulesSpecialFiles, AnEndlessDeviceIsNoInformationFile)
{
    replaceByLink("info.json", "/dev/zero");
    expectRefused("its information file cannot be read");
}

TEST_P(CtlModulesSpecialFiles, AFifoIsNoImage)
{
    replaceByFifo("alpha.bin");
    expectRefused("its image does not match its checksum");
}

TEST_P(CtlModulesSpecialFiles, AnEndlessDeviceIsNoImage)
{
    replaceByLink("alpha.bin", "/dev/zero");
    expectRefused("its image does not match its checksum");
}

INSTANTIATE_TEST_SUITE_P(Sources, CtlModulesSpecialFiles,
                         testing::Values(Place{"usb", "/opt/media/USBDriveA"},
                                         Place{"system", "/lib/firmware/ext"},
                                         Place{"shared", "/opt/usr/share/sbox"}),
                         [](const testing::TestParamInfo<Place>& place) {
                             return std::string(place.param.source);
                         });
