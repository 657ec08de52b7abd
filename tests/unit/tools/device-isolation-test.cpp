#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "support/texts.h"
#include "unit/tools/device-program.h"

using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

constexpr const char* kDirectories =
    "/usr/fwupdate/controls /opt/media /opt/usr/apps/appbinarymanager/emps /opt/usr/share/sbox "
    "/lib/firmware/ext /usr/share/sdp /var/lib/quillon /etc/quillon/trusted-keys /run/quillon";
constexpr const char* kFiles =
    "/tmp/smack_early_ready /tmp/fw_update_ready_usb /tmp/.fw_service_ready_usb "
    "/tmp/.ignore_resume /tmp/fwupdate-off-list.txt /usr/lib/libkUEPUser.so "
    "/etc/quillon/trust.conf";

std::string forEach(const char* variable, const std::string& list, const std::string& body)
{
    return std::string("for ") + variable + " in " + list + "; do " + body + "; done; ";
}

/// Copies the program to where every user may start it.
class SharedProgram
{
public:
    SharedProgram() : path_("/tmp/" + uniqueWord())
    {
        fs::copy_file(deviceProgram(), path_, fs::copy_options::overwrite_existing);
        fs::permissions(path_, fs::perms(0755));
    }
    ~SharedProgram() { fs::remove(path_); }
    SharedProgram(const SharedProgram&) = delete;
    SharedProgram& operator=(const SharedProgram&) = delete;

    std::string path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

/// Each way that gives a device namespaces of its own.
class DeviceIsolation : public testing::TestWithParam<std::string>
{
protected:
    void SetUp() override
    {
        if (!hasPrivateDevice(GetParam())) {
            GTEST_SKIP() << "this machine does not allow the way " << GetParam();
        }
    }

    Result script(const std::string& text) const
    {
        return runScript(text, {"--isolation", GetParam()});
    }

    Words words(const std::string& text) const
    {
        return {deviceProgram(), "run", "--isolation", GetParam(), "--", "sh", "-c", text};
    }
};

INSTANTIATE_TEST_SUITE_P(Ways, DeviceIsolation, testing::Values("root", "user"),
                         [](const auto& way) { return way.param; });

TEST_P(DeviceIsolation, NamesItsWay)
{
    EXPECT_EQ(script("echo $QUILLON_DEVICE").out, GetParam() + "\n");
}

TEST_P(DeviceIsolation, HasTheServicesDirectoriesEmptyAndWritable)
{
    const Result result =
        script(forEach("d", kDirectories, "ls -A $d; mkdir $d/sub && touch $d/sub/file || exit 1"));

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_P(DeviceIsolation, HasNoneOfTheServicesFilesAndLetsThemBeMade)
{
    const Result result = script(
        forEach("f", kFiles, "if [ -e $f ]; then echo $f; fi; echo x > $f && rm $f || exit 1"));

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_P(DeviceIsolation, StartsEmptyWhateverItsHostHas)
{
    const std::string fill = forEach("d", kDirectories, "echo host > $d/host-file") +
                             forEach("f", kFiles, "echo host > $f");
    const std::string inner = deviceProgram() + " run -- sh -c '" +
                              forEach("d", kDirectories, "ls -A $d; touch $d/inner") +
                              forEach("f", kFiles, "if [ -e $f ]; then echo $f; fi") + "'";
    const std::string check =
        forEach("d", kDirectories, "test \"$(ls $d)\" = host-file || exit 8") +
        forEach("f", kFiles, "test -e $f || exit 9");

    const Result result = script(fill + inner + " || exit 7; " + check);

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_P(DeviceIsolation, KeepsEveryWriteFromTheHost)
{
    const std::string name = uniqueWord();
    std::string paths;
    for (const char* directory : {"/usr/", "/usr/lib/", "/etc/", "/opt/", "/var/lib/", "/var/tmp/",
                                  "/tmp/", "/run/", "/dev/shm/", "/dev/"}) {
        paths += directory + name + " ";
    }

    const Result result = script(forEach("f", paths, "echo x > $f && test -s $f || exit 1"));

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(run({"sh", "-c", "ls -d " + paths + " 2>/dev/null"}).out, "");
}

TEST_P(DeviceIsolation, KeepsEveryWriteInTheWorkingDirectoryFromTheHost)
{
    const fs::path before = fs::current_path();
    const std::string name = uniqueWord();
    fs::current_path("/tmp");

    const Result result = script("echo x > " + name + " && test -s /tmp/" + name);

    fs::current_path(before);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(fs::exists("/tmp/" + name));
}

TEST_P(DeviceIsolation, KeepsTheModesOfTheHostsDirectories)
{
    const std::string ask = "stat -c '%a %n' /usr /etc /opt /var /tmp /usr/lib /var/lib /var/tmp";

    EXPECT_EQ(script(ask).out, run({"sh", "-c", ask}).out);
}

TEST_P(DeviceIsolation, ShowsWhatTheHostHasElsewhere)
{
    const std::string file = "/tmp/" + uniqueWord();
    ASSERT_EQ(run({"sh", "-c", "echo from the host > " + file}).status, 0);

    const Result result = script("cat " + file + "; echo changed > " + file + "; rm " + file);

    EXPECT_EQ(result.out, "from the host\n");
    EXPECT_EQ(run({"cat", file}).out, "from the host\n");
    fs::remove(file);
}

TEST_P(DeviceIsolation, HasQueuesAndSemaphoresOfItsOwn)
{
    const std::string make =
        "ls /dev/mqueue /dev/shm; touch /dev/mqueue/fwupdateservice_usb "
        "/dev/shm/sem.SEM_UPDATE_CONTROL && ls /dev/mqueue; echo ready; ";
    const Process first(words(make + "sleep 60"));
    ASSERT_TRUE(first.says("ready")) << first.err();

    const Result second = script(make);

    EXPECT_EQ(first.out(), "/dev/mqueue:\n\n/dev/shm:\nfwupdateservice_usb\nready\n");
    EXPECT_EQ(second.out, first.out());
    EXPECT_EQ(::mq_open("/fwupdateservice_usb", O_RDONLY), -1);
    EXPECT_NE(::access("/dev/shm/sem.SEM_UPDATE_CONTROL", F_OK), 0);
}

TEST_P(DeviceIsolation, AllowsQueuesOfTheServicesSize)
{
    EXPECT_EQ(script("test $(cat /proc/sys/fs/mqueue/msg_max) -ge 10 && "
                     "test $(cat /proc/sys/fs/mqueue/msgsize_max) -ge 284")
                  .status,
              0);
}

TEST_P(DeviceIsolation, HasItsOwnProcessList)
{
    const Result result = script("kill -0 " + std::to_string(::getpid()) + " 2>/dev/null; echo $?");

    EXPECT_NE(result.out, "0\n");
}

TEST_P(DeviceIsolation, HasPseudoTerminals)
{
    const Result result =
        script("stat -L -c %a /dev/ptmx; script -qec 'test -t 0 && echo terminal' /dev/null");
    if (result.status == 127) {
        GTEST_SKIP() << "needs script(1)";
    }

    expectText(result.out, like("666\nterminal*"));
}

TEST_P(DeviceIsolation, LetsAStickBeMounted)
{
    const Result result = script(
        "mkdir /opt/media/USBDriveA && mount -t tmpfs stick /opt/media/USBDriveA && "
        "touch /opt/media/USBDriveA/alpha.bin && umount /opt/media/USBDriveA && "
        "ls -A /opt/media/USBDriveA");

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
}

TEST_P(DeviceIsolation, FreesLoopDevicesThatItsCommandLeavesMounted)
{
    const std::string name = uniqueWord();
    const std::string inUse =
        "cat /sys/block/loop*/loop/backing_file 2>/dev/null | grep -c " + name;
    const Result result = script("cd /tmp && mkdir m && mksquashfs m " + name +
                                 " -quiet >/dev/null && "
                                 "mount -o ro,loop " +
                                 name + " m && " + inUse);
    if (result.status != 0) {
        GTEST_SKIP() << "no loop mounts here: " << result.err;
    }

    EXPECT_EQ(result.out, "1\n");
    EXPECT_EQ(run({"sh", "-c", inUse}).out, "0\n");
}

TEST(DeviceOfRoot, HasSixteenLoopNodesWhateverTheHostHas)
{
    if (!hasPrivateDevice("root")) {
        GTEST_SKIP() << "this machine does not allow the way root";
    }
    const Result result = runScript(
        "test -e /dev/loop-control || exit 5; ls /dev/loop[0-9]* | wc -l", {"--isolation", "root"});
    if (result.status == 5) {
        GTEST_SKIP() << "this machine has no loop devices";
    }

    EXPECT_EQ(result.out, "16\n");
}

TEST_P(DeviceIsolation, EndsItsDaemonsWithTheCommand)
{
    const std::string name = uniqueWord();

    const Result result =
        script("setsid sh -c 'trap : TERM HUP; sleep 60; : " + name + "' & exit 3");

    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(processesWith(": " + name), 0);
}

TEST_P(DeviceIsolation, EndsWhenItsLauncherIsKilled)
{
    const std::string name = uniqueWord();
    Process device(words("setsid sh -c 'sleep 60; : " + name + "' & echo ready; sleep 60"));
    ASSERT_TRUE(device.says("ready"));

    device.kill(SIGKILL);

    EXPECT_EQ(device.wait(), -SIGKILL);
    EXPECT_TRUE(vanish(": " + name));
}

TEST_P(DeviceIsolation, ReapsOrphans)
{
    const Result result = script(
        "for i in 1 2 3; do (sleep 0.01 &) ; done; sleep 0.2; "
        "grep -l 'State:.Z' /proc/[0-9]*/status 2>/dev/null; exit 4");

    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.out, "");
}

TEST_P(DeviceIsolation, RunsInsideADevice)
{
    const std::string program = deviceProgram();
    const std::string write =
        "touch /usr/fwupdate/controls/x /usr/lib/x /etc/x && "
        "ls /usr/fwupdate/controls && exit 6";
    const std::string once = program + " run -- sh -c '" + write + "'";

    EXPECT_EQ(script(once).status, 6);
    EXPECT_EQ(script(program + " run -- " + once).status, 6) << "where no overlay is possible";
    EXPECT_EQ(script(once + "; ls -A /usr/fwupdate/controls").out, "x\n");
}

TEST_P(DeviceIsolation, KeepsTheOuterDeviceUntouchedWhereNoOverlayIsPossible)
{
    // Overlays lie on each other twice at most, so the third device has to do without.
    const std::string program = deviceProgram();
    const std::string look =
        "ls -d /usr/new /usr/lib/new /etc/new /opt/new /var/lib/new /run/lock/new";
    const std::string writeAll =
        "for f in /usr/new /usr/lib/new /etc/new /opt/new /var/lib/new /run/lock/new; do "
        "echo x > $f || exit 1; done; " +
        look + " | wc -l; (echo x >> /etc/passwd) 2>/dev/null || echo read-only";
    const std::string second = program + " run -- sh /tmp/third.sh; " + look +
                               " 2>/dev/null; tail -c 2 /etc/passwd | grep -x x";

    const Result result =
        script("cat > /tmp/second.sh <<'END'\n" + second + "\nEND\ncat > /tmp/third.sh <<'END'\n" +
               writeAll + "\nEND\n" + program + " run -- sh /tmp/second.sh");

    EXPECT_EQ(result.out, "6\nread-only\n") << result.err;
}

TEST(DeviceOfAnOrdinaryUser, WorksThroughAUserNamespace)
{
    if (!hasPrivateDevice("user")) {
        GTEST_SKIP() << "this machine does not allow user namespaces";
    }
    const SharedProgram program;
    // What already is in /tmp is the machine's, which may hold any name.
    const std::string script =
        forEach("d", kDirectories, "touch $d/file || exit 1") +
        forEach("d", "/tmp /var/tmp /run/lock", "mktemp $d/XXXXXXXXXX >/dev/null || exit 1") +
        "touch /usr/lib/libkUEPUser.so && echo $QUILLON_DEVICE $(id -u)";
    // Where that user may be: the directory of the build may lie below one that is closed.
    Words words = {"env", "--chdir=/", program.path(), "run", "--", "sh", "-c", script};
    if (::geteuid() == 0) {
        const Words asNobody = {"setpriv", "--reuid", "65534",
                                "--regid", "65534",   "--clear-groups"};
        words.insert(words.begin() + 2, asNobody.begin(), asNobody.end());
    }

    const Result result = run(words);

    EXPECT_EQ(result.out, "user 0\n") << result.err;
    EXPECT_FALSE(fs::exists("/usr/fwupdate/controls/file"));
}

TEST(DeviceOfAnOrdinaryUser, IsRefusedTheWayOfRootInOneLine)
{
    if (::geteuid() == 0 &&
        run({"setpriv", "--reuid", "65534", "--clear-groups", "true"}).status != 0) {
        GTEST_SKIP() << "needs another user";
    }
    const SharedProgram program;
    Words words = {program.path(), "run", "--isolation", "root", "--", "true"};
    if (::geteuid() == 0) {
        words.insert(words.begin(), {"setpriv", "--reuid", "65534", "--clear-groups"});
    }

    const Result result = run(words);

    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.err, "quillon-device: no device: not root\n");
}

TEST(DeviceMounts, ShowVolumesThatLieBeneathItsDirectories)
{
    if (!hasPrivateDevice()) {
        GTEST_SKIP() << "needs to mount";
    }
    // The outer device plays a container with a volume, a file of its own and a stick.
    const std::string prepare =
        "mkdir '/opt/a volume' /opt/media/USBDriveA && mount -t tmpfs v '/opt/a volume' && "
        "mount -t tmpfs stick /opt/media/USBDriveA && mount -t tmpfs lib /var/lib && "
        "mkdir /var/lib/quillon && echo host > /var/lib/quillon/secret && "
        "echo seen > '/opt/a volume/file' && echo resolv > /tmp/resolv && "
        "mount --bind /tmp/resolv /etc/hostname && "
        "touch /usr/lib/libkUEPUser.so && mount --bind /tmp/resolv /usr/lib/libkUEPUser.so && ";
    const std::string inner =
        "cat '\\''/opt/a volume/file'\\'' /etc/hostname; ls -A /opt/media /var/lib/quillon; "
        "ls /usr/lib/libkUEPUser.so 2>/dev/null; "
        "touch /var/lib/new; (echo x > /etc/hostname) 2>/dev/null";

    const Result result = runScript(prepare + deviceProgram() + " run -- sh -c '" + inner +
                                    "'; ls -A /var/lib; cat /tmp/resolv");

    EXPECT_EQ(result.out, "seen\nresolv\n/opt/media:\n\n/var/lib/quillon:\nquillon\nresolv\n")
        << result.err;
}
