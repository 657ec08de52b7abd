// quillon-module check --confined, with programs in the place of systemd's.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>

#include "support/files.h"
#include "support/texts.h"
#include "support/wait.h"
#include "unit/tools/module-program.h"

namespace {

namespace fs = std::filesystem;

using quillon::test::expectText;
using quillon::test::like;
using quillon::test::readAll;
using quillon::test::Result;
using quillon::test::writeFile;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kUnit = R"(# /lib/systemd/system/quillon.service
[Unit]
Conflicts=shutdown.target

[Service]
# How it is started.
Type=notify
ExecStart=/usr/sbin/quillon-service
TimeoutStartSec=2min
Restart=on-failure
User=quillon
RestrictNamespaces=yes
NoExecPaths=/tmp -/opt
SystemCallFilter=@system-service
SystemCallFilter=~@privileged \
   @resources

[Install]
WantedBy=multi-user.target

# /etc/systemd/system/quillon.service.d/hardware.conf
[Service]
StandardError=null
ExecPaths=/opt/lantern
DeviceAllow = /dev/ttyS1 rw
)";

/// Shows the files where they lie in the unit, and does the work.
constexpr const char* kRun = R"(printf '%s\n' "$@" >"$DIRECTORY/run.arguments"
for word; do
    case $word in
        --property=BindPaths=*) bind=${word#--property=BindPaths=}; stage=${bind%:*}; place=${bind#*:} ;;
        --) break ;;
    esac
done
stat -c %a "$stage" "$stage"/* >"$DIRECTORY/modes"
rm -rf "$place"/*
cp -p "$stage"/* "$place"
while [ "$1" != -- ]; do shift; done
shift
"$@"
status=$?
cp "$place/quillon-module.log" "$stage/"
rm -f "$place"/*
exit $status
)";

class ModuleCheckConfined : public ModuleCheck
{
protected:
    ModuleCheckConfined()
    {
        setenv("DIRECTORY", directory.c_str(), 1);
        setenv("PATH", (directory + "/bin:" + path).c_str(), 1);
        fs::create_directory(directory + "/bin");
        writeFile(directory + "/unit", kUnit);
        makeProgram("systemctl", R"(echo "$@" >>"$DIRECTORY/systemctl.arguments"
[ "$2" != cat ] || cat "$DIRECTORY/unit"
)");
        makeProgram("systemd-run", kRun);
    }
    ~ModuleCheckConfined() override { setenv("PATH", path.c_str(), 1); }

    void makeProgram(const std::string& name, const std::string& text) const
    {
        const std::string file = directory + "/bin/" + name;
        writeFile(file, "#!/bin/sh\n" + text);
        fs::permissions(file, fs::perms(0755));
    }

    std::string settings() const
    {
        std::string text = readAll(directory + "/run.arguments");
        return text.substr(0, text.find("\n--\n") + 1);
    }

    static int countStages()
    {
        int count = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator("/run")) {
            count += entry.path().filename().string().rfind("quillon-module-", 0) == 0 ? 1 : 0;
        }
        return count;
    }

    const std::string path = getenv("PATH");
};

TEST_F(ModuleCheckConfined, JudgesInAUnitWithTheSettingsOfTheServices)
{
    const Result result = runModule({"check", "--confined", install("faulty-none")});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    expectText(result.out, like("*\n/usr/fwupdate/controls/lantern.so: * kept, 0 broken, *"));
    expectText(settings(), like("*\n--property=User=quillon\n"
                                "--property=RestrictNamespaces=yes\n"
                                "--property=NoExecPaths=/tmp -/opt\n"
                                "--property=SystemCallFilter=@system-service\n"
                                "--property=SystemCallFilter=~@privileged  @resources\n"
                                "--property=ExecPaths=/opt/lantern\n"
                                "--property=DeviceAllow=/dev/ttyS1 rw\n"
                                "--property=BindPaths=*"));
    for (const char* other :
         {"Type", "ExecStart", "Timeout", "Restart=", "Standard", "Conflicts", "WantedBy"}) {
        EXPECT_THAT(settings(), Not(HasSubstr("--property=" + std::string(other))));
    }
    EXPECT_EQ(countStages(), 0);
}

TEST_F(ModuleCheckConfined, LetsTheServicesUserReadTheFiles)
{
    const std::string file = install("faulty-none");
    fs::permissions(file, fs::perms(0700));
    runModule({"check", "--confined", file, "--image", image, "--filter", "image-name"});
    EXPECT_EQ(readAll(directory + "/modes"), "755\n644\n644\n666\n");
}

TEST_F(ModuleCheckConfined, PassesOnWhatItIsTold)
{
    const std::string file = install("faulty-missing-symbol");
    const std::string log = directory + "/log";
    const Result result =
        runModule({"check", "--confined", file, "--json", "--only-failed", "--level", "1",
                   "--filter", "s*", "--timeout", "5", "--log", log});
    EXPECT_EQ(result.status, 4) << result.out << result.err;
    expectText(result.out, like("{\n*\"clause\" : \"symbols\"*"));
    expectText(readAll(log), like("quillon-module *  BROKEN       1  symbols: *"));
    expectText(readAll(directory + "/run.arguments"),
               like("*\ncheck\n--level=1\n--timeout=5.0*\n--filter=s*\n*--only-failed\n--json\n*"));
}

TEST_F(ModuleCheckConfined, SaysWhyItCannotJudge)
{
    const std::string file = install("faulty-none");
    EXPECT_EQ(runModule({"check", "--confined", file, "--in-process"}).status, 2);

    fs::create_directory(directory + "/more");
    fs::copy_file(file, directory + "/more/lantern.so");
    const Result twice = runModule({"check", "--confined", file, directory + "/more/lantern.so"});
    EXPECT_EQ(twice.status, 2);
    expectText(twice.err, like("* two are named lantern.so\n"));

    makeProgram("systemd-run", "exit 226\n");
    const Result refused = runModule({"check", "--confined", file});
    EXPECT_EQ(refused.status, 3);
    expectText(refused.err,
               like("* has ended with status 226: see journalctl -u quillon-module-*"));

    makeProgram("systemctl", "echo 'Unit quillon.service could not be found.' >&2; exit 1\n");
    const Result none = runModule({"check", "--confined", file});
    EXPECT_EQ(none.status, 3);
    EXPECT_EQ(none.err,
              "quillon-module: --confined needs systemd and its unit quillon.service: "
              "systemctl cat says \"Unit quillon.service could not be found.\"\n");
    EXPECT_EQ(countStages(), 0);
}

TEST_F(ModuleCheckConfined, StopsTheUnitWhenItIsInterrupted)
{
    makeProgram("systemd-run", "touch \"$DIRECTORY/started\"\nexec sleep 3600\n");
    quillon::test::Process program({MODULE_PROGRAM, "check", "--confined", install("faulty-none")});
    quillon::test::waitFor("the unit", [&] { return fs::exists(directory + "/started"); });
    program.kill(SIGTERM);
    EXPECT_EQ(program.wait(), -SIGTERM);
    expectText(readAll(directory + "/systemctl.arguments"),
               like("*\nstop quillon-module-*.service\n"));
    EXPECT_EQ(countStages(), 0);
}

}  // namespace
