#include <string>

#include "quillon-service-control.h"

using namespace quillon::fakes;
using namespace quillon::test;

namespace {

/// The whole buffer, trailing zeros cut off.
std::string stored()
{
    std::string text(iamge_path, sizeof(iamge_path));
    while (!text.empty() && text.back() == '\0') {
        text.pop_back();
    }
    return text;
}

class ImagePath : public ControlTest
{
protected:
    ImagePath() { start(); }
};

}  // namespace

TEST_F(ImagePath, IsEmptyUntilAClientSetsIt)
{
    EXPECT_EQ(sizeof(iamge_path), 128U);
    EXPECT_EQ(stored(), "");
}

TEST_F(ImagePath, IsStoredWithoutAWord)
{
    EXPECT_EQ(client.ask(pathCommand("/opt/media/USBDriveA/")), reply(0));

    EXPECT_EQ(stored(), "/opt/media/USBDriveA/");
    expectSteps({});
}

TEST_F(ImagePath, KeepsTheFirst127CharactersOfALongOne)
{
    std::string path = "/";
    while (path.size() < 200) {
        path += static_cast<char>('a' + path.size() % 26);
    }

    EXPECT_EQ(client.ask(pathCommand(path)), reply(0));

    EXPECT_EQ(stored(), path.substr(0, 127));
    EXPECT_EQ(iamge_path[127], '\0');
}

TEST_F(ImagePath, Of127CharactersFitsWhole)
{
    const std::string path = std::string(126, 'x') + "/";

    client.ask(pathCommand(path));

    EXPECT_EQ(stored(), path);
}

TEST_F(ImagePath, Of128CharactersLosesTheLast)
{
    client.ask(pathCommand(std::string(127, 'x') + "/"));

    EXPECT_EQ(stored(), std::string(127, 'x'));
}

TEST_F(ImagePath, WithoutATerminatorIsBounded)
{
    Record record = pathCommand(std::string(256, 'x'));
    for (std::size_t i = 268; i < kRecordSize; ++i) {
        record.bytes[i] = 'y';
    }

    EXPECT_EQ(client.ask(record), reply(0));

    EXPECT_EQ(stored(), std::string(127, 'x'));
}

TEST_F(ImagePath, LeavesWhatALongerOneLeftBehindIt)
{
    client.ask(pathCommand("abcdef"));

    client.ask(pathCommand("XY"));

    EXPECT_EQ(stored(), "XYcdef");
}

TEST_F(ImagePath, EndsAtItsTerminator)
{
    client.ask(pathCommand("abcdef"));

    client.ask(pathCommand(std::string("X\0YZ", 4)));

    EXPECT_EQ(stored(), "Xbcdef");
}

TEST_F(ImagePath, OfNoCharactersChangesNothing)
{
    client.ask(pathCommand("abcdef"));

    EXPECT_EQ(client.ask(8), reply(0));

    EXPECT_EQ(stored(), "abcdef");
}

TEST_F(ImagePath, IsNotChangedByOtherCommands)
{
    for (const int code : {6, 7, 2, 9}) {
        Record record = pathCommand("abc");
        record.set(0, code);
        client.send(record);
    }
    client.replies().receive();
    client.replies().receive();
    client.ask(6);

    EXPECT_EQ(stored(), "");
}
