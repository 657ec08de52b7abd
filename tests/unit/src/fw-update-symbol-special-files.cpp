// What lies in the place of an image or of its information file, where it is not enciphered.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "offered-firmware.h"

namespace quillon::test {
namespace {

using namespace fakes;

// Whoever opens a FIFO that nobody writes to would wait for ever.
constexpr unsigned int kPatienceSeconds = 50;

struct Source
{
    CallerTypes caller;
    const char* directory;
};

constexpr Source kShared = {CALLER_SHARED, "/opt/usr/share/sbox/tunerA1"};
constexpr Source kSources[] = {
    {CALLER_STICK, "/opt/media/USBDriveA/tunerA1"},
    {CALLER_SERVICE, "/opt/usr/apps/appbinarymanager/emps/tunerempA1"},
    {CALLER_SYSTEM, "/lib/firmware/ext/tunerA1"},
    kShared,
};

class SpecialFiles : public OfferedFirmware
{
protected:
    SpecialFiles()
    {
        install(Module().needsUpdate());
        alarm(kPatienceSeconds);
    }

    void replaceByFifo(const std::string& path)
    {
        removeFile(path);
        ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
    }
    void replaceByLink(const std::string& path, const char* target)
    {
        removeFile(path);
        ASSERT_EQ(symlink(target, path.c_str()), 0);
    }

    /// Whatever the source, the file counts as one that cannot be read.
    void expectRefused(const Source& source, const std::string& line)
    {
        clear();
        EXPECT_EQ(decide(source.caller, noText), -1) << source.directory;
        EXPECT_EQ(update(source.caller, noText), -1) << source.directory;
        const std::vector<std::string> lines = logTexts();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 2) << source.directory;
        expectNoStep(Plugin(like("*doUpdate(*")));
    }
    void expectNoInformation(const Source& source)
    {
        expectRefused(source, std::string("Error: json loadInformation fail.(") + source.directory +
                                  "/info.json)\n");
    }
    void expectNoImage(const Source& source)
    {
        expectRefused(source, "Error: binary file is NULL\n");
    }

    char noText[1] = {};
};

TEST_F(SpecialFiles, AFifoIsNoInformationFileAndNeverWaitedFor)
{
    offerPackage();
    for (const Source& source : kSources) {
        offer(source.directory);
        replaceByFifo(std::string(source.directory) + "/info.json");

        expectNoInformation(source);
    }
}

TEST_F(SpecialFiles, AFifoIsNoImageAndNeverWaitedFor)
{
    offerPackage();
    for (const Source& source : kSources) {
        offer(source.directory, Firmware().statedCrc(0));
        replaceByFifo(std::string(source.directory) + "/tunerA1.bin");

        expectNoImage(source);
    }
}

TEST_F(SpecialFiles, AnEndlessDeviceIsNoInformationFile)
{
    offer(kSharedDirectory);
    replaceByLink(std::string(kSharedDirectory) + "/info.json", "/dev/zero");

    expectNoInformation(kShared);
}

TEST_F(SpecialFiles, ADeviceIsNoImageEvenWhereItsChecksumWouldBeRight)
{
    offer(kSharedDirectory, Firmware().statedCrc(0));
    replaceByLink(std::string(kSharedDirectory) + "/tunerA1.bin", "/dev/null");

    expectNoImage(kShared);
}

TEST_F(SpecialFiles, AFileWithoutAnEndIsNoImage)
{
    offer(kSharedDirectory);
    replaceByLink(std::string(kSharedDirectory) + "/tunerA1.bin", "/proc/self/pagemap");
    clear();

    EXPECT_EQ(decide(CALLER_SHARED, noText), -1);

    expectStep(Log("Error: tunerA1 Firmware CRC32 different"));
}

TEST_F(SpecialFiles, ALinkToARegularFileIsFollowed)
{
    offer(kSharedDirectory);
    ASSERT_EQ(std::rename("/opt/usr/share/sbox/tunerA1/info.json", "/opt/usr/share/sbox/kept"), 0);
    ASSERT_EQ(symlink("../kept", "/opt/usr/share/sbox/tunerA1/info.json"), 0);

    EXPECT_EQ(decide(CALLER_SHARED, noText), 1);
}

TEST_F(SpecialFiles, AnInformationFileOfAMebibyteIsRead)
{
    const std::string text = Firmware().informationText();
    offer(kSharedDirectory,
          Firmware().information(text + std::string((1U << 20U) - text.size(), ' ')));

    EXPECT_EQ(decide(CALLER_SHARED, noText), 1);
}

TEST_F(SpecialFiles, ALargerInformationFileIsNot)
{
    const std::string text = Firmware().informationText();
    offer(kSharedDirectory,
          Firmware().information(text + std::string((1U << 20U) - text.size() + 1, ' ')));

    expectNoInformation(kShared);
}

}  // namespace
}  // namespace quillon::test
