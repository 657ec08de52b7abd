// Every command of docs/operation.md, in the page's order, on a device with a service and a stick.

#include <filesystem>
#include <sstream>

#include "support/files.h"
#include "support/process.h"
#include "support/texts.h"
#include "system/system-test.h"

namespace quillon::test {
namespace {

/// @return the lines of the page's blocks that begin with a program's name
std::vector<std::string> commandsOf(const std::string& page, const std::string& program)
{
    std::istringstream lines(readAll(page));
    const std::string opening = "    " + program + " ";
    std::vector<std::string> commands;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(opening, 0) == 0) {
            commands.push_back(line.substr(4));
        }
    }
    return commands;
}

struct PageCommand
{
    std::string command;
    TextRule says;
};

class OperationPage : public SystemTest
{
protected:
    void SetUp() override
    {
        SystemTest::SetUp();
        std::filesystem::create_directories("/run/quillon/run");
        std::filesystem::create_directories("/var/lib/quillon/history");
        std::filesystem::create_directories("/opt/usr/apps/appbinarymanager/emps");
        putImagesForAll("2.0");
    }
};

TEST_F(OperationPage, NamesCommandsThatDoWhatItSays)
{
    const std::vector<PageCommand> expected = {
        {"quillonctl doctor", like("*error*warning*note*")},
        {"quillonctl modules list", like("*panel*1.0*")},
        {"quillonctl check /opt/media/USBDriveA", like("*panel*1.0*2.0*needs an update*")},
        {"quillonctl update /opt/media/USBDriveA", like("*panel*1.0*2.0*updated in*finished*")},
        {"quillonctl progress --follow", "No update is running\n"},
        {"quillonctl modules check", like("*panel*2.0*")},
        {"quillonctl modules update --all", like("*panel*2.0*")},
        {"quillonctl history", like("*panel*2.0*updated*")},
        {"quillonctl history --since 30d", like("*panel*2.0*updated*")},
        {"quillonctl history --plot history.svg", like("*Plotted to *history.svg\n")},
        {"quillonctl --json doctor", like("*\"event\":\"examined\"*\n")},
        {"quillonctl --json history", like("{*\"panel\"*}\n")},
    };
    startDaemon();
    channel.reset();  // the queues are quillonctl's
    std::vector<std::string> known;
    for (const PageCommand& step : expected) {
        known.push_back(step.command);
        const Result result =
            runInShell("quillonctl() { " QUILLONCTL_PROGRAM " \"$@\"; }; cd /tmp && " +
                       step.command + " 2>&1");
        SCOPED_TRACE(step.command);
        expectText(result.out, step.says);
    }
    EXPECT_EQ(commandsOf(OPERATION_PAGE, "quillonctl"), known);
}

}  // namespace
}  // namespace quillon::test
