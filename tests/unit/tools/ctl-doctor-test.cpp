// What quillonctl doctor says, to whom, and that it leaves everything as it is.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <mqueue.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "client/client-lock.h"
#include "fw-update-mqdata.h"
#include "platform/protocols/storage-protocol.h"
#include "support/files.h"
#include "support/texts.h"
#include "tools/quillonctl/next-commands.h"
#include "unit/storage/listener.h"
#include "unit/tools/ctl-doctor-device.h"

namespace {

namespace fs = std::filesystem;
using quillon::restartService;
using quillon::test::Listener;
using quillon::test::outputOf;
using quillon::test::writeFile;
using testing::HasSubstr;
using namespace std::string_literals;

constexpr const char* kStorageSocket = "/run/quillon/storage.sock";

using CtlDoctor = RootsMachine;

TEST_F(CtlDoctor, FindsNothingOnAHealthyDevice)
{
    const DoctorsDevice device;

    const CtlResult result = runCtl({"doctor"});

    EXPECT_EQ(result.out, "Nothing found\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(CtlDoctor, SaysTheWorstFirstWithTheRemedyBelow)
{
    DoctorsDevice device;
    fs::remove("/tmp/.fw_service_ready_usb");
    mkfifo("/tmp/fwupdate-off-list.txt", 0600);

    const CtlResult result = runCtl({"doctor"});

    EXPECT_EQ(
        result.out,
        "error: /tmp/fwupdate-off-list.txt belongs to root, or is no plain file: packages "
        "cannot be checked, or others change the list\n"
        "    rm -rf /tmp/fwupdate-off-list.txt; " +
            restartService() +
            "\n"
            "warning: the service is ready, but the event /tmp/.fw_service_ready_usb is missing: "
            "programs wait for it in vain\n"
            "    " +
            restartService() + "\n1 error, 1 warning, 0 notes\n");
    EXPECT_EQ(result.exitCode, 21);
}

TEST_F(CtlDoctor, NamesSystemdsCommandsWhereItRuns)
{
    DoctorsDevice device;
    const auto remedyOf = [](const std::vector<Json::Value>& findings, const char* code) {
        return findingIn(findings, code)["remedy"].asString();
    };
    mkfifo("/tmp/fwupdate-off-list.txt", 0600);
    fs::remove("/run/quillon/privileged.sock");
    const bool isMade = fs::create_directories("/run/systemd/system");

    const auto findings = findingsOf(runCtl({"--json", "doctor"}));

    if (isMade) {
        fs::remove("/run/systemd/system");  // it may be the machine's own directory
    }
    EXPECT_EQ(remedyOf(findings, "update-list-blocked"), "systemctl restart quillon");
    EXPECT_EQ(remedyOf(findings, "helper-missing"),
              "systemctl enable --now quillon-privileged.socket");
}

TEST_F(CtlDoctor, EndsWithAnotherCodeForWarningsAlone)
{
    DoctorsDevice device;
    fs::remove("/tmp/.fw_service_ready_usb");

    EXPECT_EQ(runCtl({"doctor"}).exitCode, 20);
    const CtlResult quiet = runCtl({"--quiet", "doctor"});
    EXPECT_EQ(quiet.out + quiet.err, "");
    EXPECT_EQ(quiet.exitCode, 20);
}

TEST_F(CtlDoctor, EndsWellWithNotesAlone)
{
    DoctorsDevice device;
    device.endService();
    fs::remove("/tmp/fw_update_ready_usb");
    fs::remove("/tmp/.fw_service_ready_usb");

    const CtlResult result = runCtl({"doctor"});

    EXPECT_THAT(result.out, HasSubstr("note: the service does not run"));
    EXPECT_THAT(result.out, HasSubstr("\n0 errors, 0 warnings, 1 note\n"));
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(CtlDoctor, CountsForProgramsAtTheEnd)
{
    DoctorsDevice device;
    fs::remove("/tmp/.fw_service_ready_usb");

    const auto lines = findingsOf(runCtl({"--json", "doctor"}));

    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["event"], "finding");
    EXPECT_EQ(lines[0]["code"], "ready-missing");
    EXPECT_EQ(lines[0]["severity"], "warning");
    EXPECT_EQ(lines[0]["remedy"], restartService());
    EXPECT_EQ(lines[1]["event"], "examined");
    EXPECT_EQ(lines[1]["errors"], 0);
    EXPECT_EQ(lines[1]["warnings"], 1);
    EXPECT_EQ(lines[1]["notes"], 0);
}

TEST_F(CtlDoctor, TellsAnOrdinaryUserWhatItCannotSee)
{
    DoctorsDevice device;
    if (!canRunCtlAs(kStranger)) {
        GTEST_SKIP() << "nobody else can run the program here";
    }
    fs::remove("/run/quillon/run/start.jsonl");
    ASSERT_EQ(chmod("/run/quillon/privileged.sock", 0600), 0);  // the group stays root's

    const CtlResult result = runCtl({"--json", "doctor"}, kStranger);

    const auto findings = findingsOf(result);
    std::string texts;
    for (const Json::Value& finding : findings) {
        if (!finding.isMember("code")) {
            continue;
        }
        EXPECT_EQ(finding["code"], "not-checked") << result.out;
        EXPECT_EQ(finding["severity"], "note");
        texts += finding["text"].asString() + "\n";
    }
    EXPECT_EQ(texts,
              "not checked: the image key: needs root\n"
              "not checked: who listens at /run/quillon/privileged.sock: needs root\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(CtlDoctor, LeavesQueuesFilesAndSemaphoreAsTheyAre)
{
    DoctorsDevice device;
    sendTo(FW_MQ_SERVICE_QUEUE);
    sendTo(FW_MQ_CONTROL_QUEUE);
    ASSERT_EQ(quillon::test::inChild([] {
                  return sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 0) != SEM_FAILED ? 0 : 1;
              }),
              0);
    const char* look =
        "cat /dev/mqueue/*; cksum /dev/shm/*; "
        "find /etc/quillon /var/lib/quillon /usr/fwupdate /opt/usr/apps /opt/usr/share /tmp/.fw* "
        "/tmp/fw* /run/quillon /run/lock "
        "/dev/shm -printf '%p %m %U %s %C@\\n' | sort; "
        "find /dev/mqueue -printf '%p %m %U %s\\n' | sort";  // their times change as cat reads
    const std::string before = outputOf(look);

    EXPECT_NE(findingIn(findingsOf(runCtl({"--json", "doctor"})), "semaphore-stale"),
              Json::Value());

    EXPECT_EQ(outputOf(look), before);
}

TEST_F(CtlDoctor, TakesNoSemaphoreForStaleThatSomebodyHolds)
{
    DoctorsDevice device;
    ASSERT_NE(sem_open("/SEM_UPDATE_CONTROL", O_CREAT, 0600, 0), SEM_FAILED);

    EXPECT_EQ(runCtl({"doctor"}).out, "Nothing found\n");
}

TEST_F(CtlDoctor, TakesNoRepliesForUnreadThatAClientWaitsFor)
{
    DoctorsDevice device;
    sendTo(FW_MQ_CONTROL_QUEUE);
    const quillon::UniqueFd lock(
        open(quillon::ClientLock::defaultPath().c_str(), O_RDWR | O_CREAT, 0666));
    ASSERT_EQ(fchmod(lock.get(), 0666), 0);
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);

    EXPECT_EQ(runCtl({"doctor"}).out, "Nothing found\n");
}

TEST_F(CtlDoctor, TakesNoLockOnAnotherFileSystemForAClients)
{
    DoctorsDevice device;
    sendTo(FW_MQ_CONTROL_QUEUE);
    const std::string lock = quillon::ClientLock::defaultPath();
    fs::create_directory("/tmp/elsewhere");
    for (const std::string& place : {fs::path(lock).parent_path().string(), "/tmp/elsewhere"s}) {
        if (mount("none", place.c_str(), "tmpfs", 0, "mode=1777") != 0) {
            GTEST_SKIP() << "nothing can be mounted here";
        }
    }
    ASSERT_EQ(quillon::ClientLock::defaultPath(), lock);
    writeFile(lock, "");
    ASSERT_EQ(chmod(lock.c_str(), 0666), 0);
    const quillon::UniqueFd other(open("/tmp/elsewhere/lock", O_RDWR | O_CREAT, 0600));
    struct stat mine = {};
    struct stat others = {};
    ASSERT_EQ(stat(lock.c_str(), &mine) + fstat(other.get(), &others), 0);
    if (mine.st_ino != others.st_ino) {
        GTEST_SKIP() << "file systems number their files in one row here";
    }
    ASSERT_EQ(flock(other.get(), LOCK_EX), 0);

    EXPECT_EQ(findingsOf(runCtl({"--json", "doctor"})).front()["code"], "replies-unread");
}

TEST_F(CtlDoctor, OffersNoUnmountWhileAnUpdateOfAnyUserIsAtWork)
{
    DoctorsDevice device;
    const char* place = "/opt/usr/apps/appbinarymanager/emps/tuneremp";
    fs::create_directory(place);
    if (chown(place, kStranger, kStranger) != 0 || mount("none", place, "tmpfs", 0, "") != 0) {
        GTEST_SKIP() << "there is only one user here, or nothing can be mounted";
    }
    const NamedProcess update("quillonctl", kStranger);

    EXPECT_EQ(runCtl({"doctor"}).out, "Nothing found\n");
}

TEST_F(CtlDoctor, NamesTheStickOfAnUpdateThatIsToBeRepeated)
{
    DoctorsDevice device;
    putRecord("update", 0, "{\"event\":\"started\",\"module\":\"tuner\"}\n");
    putRecord("estimate", 0, "{\"event\":\"checking\",\"module\":\"tuner\"}\n");

    quillon::test::expectText(
        runCtl({"doctor"}).out,
        quillon::test::like("*from that stick: quillonctl update /opt/media/gone/\n*"
                            "repeat it: quillonctl check /opt/media/gone/\n*"));
}

TEST_F(CtlDoctor, FindsAModuleThatWasQuarantinedAfterItEndedAStartOnlyOnce)
{
    DoctorsDevice device;
    const std::string loading = "{\"event\":\"loading\",\"module\":\"tuner\"}\n";
    writeFile("/usr/fwupdate/quarantine/tuner.so", "a library");
    const auto foundOnce = [] {
        const auto findings = findingsOf(runCtl({"--json", "doctor"}));
        EXPECT_FALSE(findingIn(findings, "module-quarantined").isNull());
        EXPECT_EQ(findingIn(findings, "module-ended-start"), Json::Value());
    };

    putRecord("earlier-start", 0, loading);
    foundOnce();
    putRecord("start", 0, loading);
    foundOnce();

    writeFile("/usr/fwupdate/controls/tuner.so", "a library");
    EXPECT_FALSE(findingIn(findingsOf(runCtl({"--json", "doctor"})), "module-ended-start").isNull())
        << "somebody has put another one there";
}

TEST_F(CtlDoctor, TakesNoProcessOfAnotherUserForTheService)
{
    if (!canRunCtlAs(kStranger)) {
        GTEST_SKIP() << "nobody else can run a program here";
    }
    DoctorsDevice device;
    device.endService();
    const NamedProcess other("quillon-service", kStranger);

    EXPECT_FALSE(findingIn(findingsOf(runCtl({"--json", "doctor"})), "marker-stale").isNull());
}

TEST_F(CtlDoctor, WaitsForNoFifoAndReadsNoEndlessRecord)
{
    DoctorsDevice device;
    for (const char* path :
         {"/run/quillon/run/update.jsonl", "/etc/quillon/trust.conf",
          "/etc/quillon/trusted-keys/b.pem", "/etc/quillon/provisioning-certificates/b.pem",
          "/usr/fwupdate/controls/b.so", "/dev/shm/sem.SEM_UPDATE_CONTROL"}) {
        ASSERT_EQ(mkfifo(path, 0600), 0) << path;
    }
    fs::remove("/run/quillon/run/start.jsonl");
    fs::create_symlink("/dev/zero", "/run/quillon/run/start.jsonl");

    EXPECT_EQ(runCtl({"doctor"}).exitCode, 21);
}

TEST_F(CtlDoctor, SurvivesAVerifierThatDoesNot)
{
    DoctorsDevice device;
    fs::copy_file(DOCTORS_BROKEN_VERIFIER, "/usr/lib/libkUEPUser.so",
                  fs::copy_options::overwrite_existing);

    const CtlResult result = runCtl({"--json", "doctor"});

    EXPECT_EQ(findingIn(findingsOf(result), "verifier-unusable")["text"],
              "the verifier cannot be used, and without it every image counts as signed: it ends "
              "the process when it is loaded");
}

TEST_F(CtlDoctor, LoadsNoVerifierThatOthersCanPutInPlace)
{
    DoctorsDevice device;
    fs::create_directory("/usr/lib/open");
    fs::copy_file(DOCTORS_BROKEN_VERIFIER, "/usr/lib/open/verifier.so");
    fs::permissions("/usr/lib/open", fs::perms::all);
    fs::remove("/usr/lib/libkUEPUser.so");
    fs::create_symlink("open/verifier.so", "/usr/lib/libkUEPUser.so");

    const auto findings = findingsOf(runCtl({"--json", "doctor"}));

    EXPECT_FALSE(findingIn(findings, "trusted-place-open").isNull());
    EXPECT_EQ(findingIn(findings, "verifier-unusable"), Json::Value());
}

TEST_F(CtlDoctor, ShowsNoControlCharactersOfANameOnTheDevice)
{
    DoctorsDevice device;
    putRecord("update", 0, "{\"event\":\"started\",\"module\":\"a\\u001b[2Jb\\nerror: c\"}\n");

    EXPECT_THAT(runCtl({"doctor"}).out, HasSubstr("the update of a?[2Jb?error: c from"));
}

/// A storage helper.
/// @param items  the item of each request is added; to be read once the listener is gone
Listener::Serve storageHelper(bool answers, std::vector<std::string>& items)
{
    return [answers, &items](int client) {
        quillon::SecretBytes packet(quillon::storage::kLargestRequest);
        const ssize_t size = recv(client, packet.data(), packet.size(), 0);
        packet.resize(static_cast<std::size_t>(std::max(size, ssize_t{0})));
        const auto request = quillon::storage::parseRequest(packet);
        items.emplace_back(request ? request->item : "");
        const auto answer = quillon::storage::encodeAnswer(5, {});
        if (answers) {
            send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    };
}

TEST_F(CtlDoctor, AsksTheStorageForAnItemThatNobodyHas)
{
    DoctorsDevice device;
    std::vector<std::string> items;
    {
        const Listener listener(storageHelper(true, items));
        ASSERT_EQ(chmod(kStorageSocket, 0600), 0);
        EXPECT_EQ(runCtl({"doctor"}).out, "Nothing found\n");
    }
    EXPECT_THAT(items, testing::ElementsAre("doctor"));
}

TEST_F(CtlDoctor, MissesNoStorageHelperOfAServiceThatRootHasStartedByHand)
{
    DoctorsDevice device;
    if (!DoctorsDevice::giveServiceToItsUser()) {
        GTEST_SKIP() << "there is only one user here";
    }

    EXPECT_EQ(findingIn(findingsOf(runCtl({"--json", "doctor"})), "helper-missing"), Json::Value());
}

TEST_F(CtlDoctor, FindsAStorageThatEndsTheConnection)
{
    DoctorsDevice device;
    std::vector<std::string> items;
    const Listener listener(storageHelper(false, items));
    ASSERT_EQ(chmod(kStorageSocket, 0600), 0);

    EXPECT_THAT(runCtl({"doctor"}).out,
                HasSubstr("nobody answers at /run/quillon/storage.sock: it ends the connection"));
}

}  // namespace
