#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/texts.h"
#include "unit/tools/device-program.h"

using namespace quillon::test;
using testing::MatchesRegex;

/// Runs in place inside a private device, which plays the disposable container, so that this
/// machine stays untouched.
class DeviceInPlace : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!hasPrivateDevice()) {
            GTEST_SKIP() << "needs a private device to play the container";
        }
    }

    /// "$IN_PLACE" in the script runs a command in place.
    static Result container(const std::string& script)
    {
        return runScript("IN_PLACE='" + deviceProgram() + " run --in-place --'; " + script);
    }

    /// A machine without the mark of a container, in which neither root nor user may have
    /// namespaces. "$DEVICE" in the script is the program.
    static Result bareMachine(const std::string& script)
    {
        return runScript("DEVICE=" + deviceProgram() +
                             "; export DEVICE; unset container; rm -f /run/.containerenv; "
                             "mkdir /tmp/root; for e in /*; do "
                             "if [ -L $e ]; then cp -P $e /tmp/root; "
                             "elif [ -d $e ]; then mkdir /tmp/root$e; "
                             "mount --rbind $e /tmp/root$e; fi; done; "
                             "echo 0 > /proc/sys/user/max_user_namespaces && "
                             "exec chroot /tmp/root setpriv --bounding-set -sys_admin "
                             "--inh-caps -sys_admin sh -c '" +
                             script + "'",
                         {"--isolation", "user"});
    }
};

/// Needs a user namespace of its own to forbid namespaces in.
class DeviceOnABareMachine : public DeviceInPlace
{
protected:
    void SetUp() override
    {
        if (!hasPrivateDevice("user") || bareMachine("true").status != 0) {
            GTEST_SKIP() << "needs user namespaces, and setpriv(1)";
        }
    }
};

TEST_F(DeviceInPlace, PassesTheExitStatusOn)
{
    EXPECT_EQ(container("$IN_PLACE sh -c 'exit 7'").status, 7);
    EXPECT_EQ(container("$IN_PLACE sh -c 'kill -9 $$'").status, 137);
    EXPECT_EQ(container("$IN_PLACE /no/such/command").status, 127);
}

TEST_F(DeviceInPlace, SaysInOneLineThatItRunsInPlace)
{
    EXPECT_EQ(container("$IN_PLACE sh -c 'echo $QUILLON_DEVICE'").out, "in-place\n");
    EXPECT_EQ(container("$IN_PLACE true").err,
              "quillon-device: running in place, this machine's own paths are used\n");
}

TEST_F(DeviceInPlace, MakesTheDirectoriesAndRemovesWhatItMade)
{
    const Result result = container(
        "rmdir /usr/fwupdate/controls /usr/fwupdate /usr/share/sdp; "
        "$IN_PLACE sh -c 'cd /usr/fwupdate/controls && mkdir sub && touch sub/x /opt/media/y "
        "/usr/share/sdp/z /usr/lib/libkUEPUser.so /tmp/fw_update_ready_usb' || exit 1; "
        "ls -d /usr/fwupdate /usr/share/sdp /usr/lib/libkUEPUser.so /tmp/fw_update_ready_usb "
        "2>/dev/null; ls -A /opt/media");

    EXPECT_EQ(result.out, "") << result.err;
    EXPECT_EQ(result.status, 0);
}

TEST_F(DeviceInPlace, RemovesQueuesAndTheSemaphore)
{
    const Result result = container(
        "$IN_PLACE touch /dev/mqueue/fwupdateservice_usb /dev/mqueue/fwupdatecontrol_usb "
        "/dev/mqueue/fwupdate_other /dev/mqueue/foreign /dev/shm/sem.SEM_UPDATE_CONTROL; "
        "ls -A /dev/mqueue /dev/shm");

    EXPECT_EQ(result.out, "/dev/mqueue:\nforeign\n\n/dev/shm:\n");
}

TEST_F(DeviceInPlace, EndsItsDaemonsWithTheCommand)
{
    const Result result = container(
        "$IN_PLACE sh -c 'setsid sh -c \"echo \\$\\$ >/tmp/daemon; sleep 60\" & "
        "while ! [ -s /tmp/daemon ]; do sleep 0.01; done; exit 3'; "
        "echo $?; kill -0 $(cat /tmp/daemon) 2>/dev/null || echo gone");

    EXPECT_EQ(result.out, "3\ngone\n");
}

TEST_F(DeviceInPlace, IsNotDisturbedByProcessesThatComeAndGo)
{
    const Result result = container(
        "for n in 1 2 3 4 5 6 7 8; do (while :; do (:); (:); (:); done) & done; "
        "for n in $(seq 200); do $IN_PLACE true || exit 5; done");

    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(DeviceInPlace, RunsOneDeviceAfterTheOther)
{
    const Result result = container(
        "for name in a b c; do $IN_PLACE sh -c \"echo $name; sleep 0.1; echo $name\" & done; wait");

    EXPECT_EQ(result.out.size(), 12U);
    for (std::size_t i = 0; i + 3 < result.out.size(); i += 4) {
        EXPECT_EQ(result.out.substr(i, 2), result.out.substr(i + 2, 2)) << result.out;
    }
}

TEST_F(DeviceInPlace, EndsOnASignalWhileItWaitsForItsTurn)
{
    const Result result = container(
        "$IN_PLACE sh -c 'echo first > /tmp/first; sleep 60' & holder=$!; "
        "while ! [ -s /tmp/first ]; do sleep 0.01; done; "
        "$IN_PLACE echo second & waiting=$!; sleep 0.1; kill -TERM $waiting; wait $waiting; "
        "echo $?; kill -TERM $holder; wait $holder; echo $?");

    EXPECT_EQ(result.out, "143\n143\n");
}

TEST_F(DeviceInPlace, RefusesToRunOverRealContentAndKeepsIt)
{
    const Result result = container(
        "echo real > /usr/fwupdate/controls/libvendor.so; $IN_PLACE echo ran; echo $?; "
        "cat /usr/fwupdate/controls/libvendor.so");

    EXPECT_EQ(result.out, "125\nreal\n");
    expectText(result.err, like("*/usr/fwupdate/controls holds real content*"));
}

TEST_F(DeviceInPlace, RefusesToReplaceARealVerifier)
{
    const Result result =
        container("echo real > /usr/lib/libkUEPUser.so; $IN_PLACE echo ran; echo $?");

    EXPECT_EQ(result.out, "125\n");
    expectText(result.err, like("*/usr/lib/libkUEPUser.so exists*"));
}

TEST_F(DeviceInPlace, CleansUpAfterADeviceThatWasKilled)
{
    const Result result = container(
        "rmdir /usr/share/sdp; "
        "$IN_PLACE sh -c 'setsid sh -c \"echo \\$\\$ >/tmp/daemon; sleep 60\" & "
        "touch /usr/share/sdp/x /usr/fwupdate/controls/x; "
        "while ! [ -s /tmp/daemon ]; do sleep 0.01; done; kill -9 $PPID; cat'; "
        "ls -A /usr/fwupdate/controls; kill -0 $(cat /tmp/daemon) && echo left; "
        "$IN_PLACE ls -A /usr/fwupdate/controls /usr/share/sdp; "
        "ls -d /usr/share/sdp 2>/dev/null; sleep 0.2; "
        "kill -0 $(cat /tmp/daemon) 2>/dev/null || echo gone");

    EXPECT_EQ(result.out, "x\nleft\n/usr/fwupdate/controls:\n\n/usr/share/sdp:\ngone\n")
        << result.err;
}

TEST_F(DeviceInPlace, RemovesNothingThatOnlyAForgedRecordNames)
{
    const Result result = container(
        "touch /opt/keep; printf 'in use\\n/opt\\n/home\\n\\n/\\n' > "
        "/run/lock/quillon-device.lock; "
        "chmod 600 /run/lock/quillon-device.lock; $IN_PLACE ls -d /opt/keep /home; echo $?");

    EXPECT_EQ(result.out, "/home\n/opt/keep\n0\n") << result.err;
}

TEST_F(DeviceInPlace, RefusesWhatSomebodyHasPutInTheLocksPlaceAndKeepsIt)
{
    for (const std::string lay :
         {"ln precious $LOCK", "ln -s precious $LOCK", "mkfifo -m 600 $LOCK", "mkdir $LOCK",
          "setpriv --reuid 1234 --clear-groups touch $LOCK"}) {
        const Result result = container(
            "LOCK=quillon-device.lock; cd /run/lock && chmod 1777 . && umask 077 && "
            "printf 'in use\nprecious\n' >precious && " +
            lay + " || exit 77; $IN_PLACE echo ran; echo $?; cat precious");
        if (result.status == 77) {
            continue;  // there are no other users here
        }

        EXPECT_EQ(result.out, "125\nin use\nprecious\n") << lay;
        expectText(result.err, like("*the lock /run/lock/quillon-device.lock * remove it as *"));
    }
}

TEST_F(DeviceInPlace, DoesNotRunInsideADeviceInPlace)
{
    const Result result =
        container("$IN_PLACE " + deviceProgram() + " run --in-place -- echo ran; echo $?");

    EXPECT_EQ(result.out, "125\n");
    expectText(result.err, like("*this already is a device in place*"));
}

TEST_F(DeviceOnABareMachine, RunsInPlaceByItselfWhereTheContainerIsDisposable)
{
    const Result result = bareMachine(
        "container=oci $DEVICE run -- "
        "sh -c \"echo \\$QUILLON_DEVICE\"; rc=$?; $DEVICE info; exit $rc");

    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, MatchesRegex("in-place\nroot:      no .*\nuser:      no .*\n"
                                         "in-place:  yes .*\nauto:      none\n"));
    EXPECT_THAT(result.err,
                MatchesRegex("quillon-device: no private namespaces here \\(as root: .*; as user: "
                             ".*\\); running in place, this disposable container's own paths are "
                             "used\n"));
}

TEST_F(DeviceOnABareMachine, ObeysTheExplicitWordOfTheEnvironment)
{
    EXPECT_EQ(bareMachine("QUILLON_DEVICE_IN_PLACE=1 $DEVICE run -- "
                          "sh -c \"echo \\$QUILLON_DEVICE\"")
                  .out,
              "in-place\n");
}

TEST_F(DeviceOnABareMachine, RefusesInOneLineOnAMachineThatIsNotDisposable)
{
    const Result result = bareMachine("$DEVICE run -- echo ran");

    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, MatchesRegex("quillon-device: no device: as root: .*; as user: .*add "
                                         "--in-place\n"));
}

TEST_F(DeviceInPlace, IsRefusedToAUserWhoMayNotWriteThere)
{
    const Result result = container(
        "rm -r /usr/fwupdate; chmod 555 /usr; "
        "exec setpriv --bounding-set -all --inh-caps -all $IN_PLACE echo ran");

    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.out, "");
    expectText(result.err, like("*quillon-device: no device: no right to write in /usr\n*"));
}
