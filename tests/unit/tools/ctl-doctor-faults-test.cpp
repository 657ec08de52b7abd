// Each fault that doctor knows, made on a device where it finds nothing else; and the page that
// lists them.

#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>

#include "client/client-lock.h"
#include "fw-update-mqdata.h"
#include "support/files.h"
#include "tools/quillonctl/doctor/checks.h"
#include "tools/quillonctl/next-commands.h"
#include "unit/storage/makers.h"
#include "unit/tools/ctl-doctor-device.h"

namespace {

namespace fs = std::filesystem;
using quillon::test::inChild;
using quillon::test::readAll;
using quillon::test::writeFile;

constexpr const char* kPackage = "/usr/share/sdp/quillon-key/00000066.bin";
constexpr const char* kKey = "/var/lib/quillon/secure-storage/quillon.cred";
constexpr const char* kSemaphore = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr const char* kShared = "/opt/usr/share/sbox";
constexpr const char* kModules = "/usr/fwupdate/controls";

/// What the machine does not allow; the test is skipped then.
struct NotHere
{
    const char* why;
};

void must(bool done, const char* why = "there is only one user here")
{
    if (!done) {
        throw NotHere{why};
    }
}

/// @return a process that has ended, and that nobody has waited for
pid_t unreapedProcess()
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    return child;
}

/// It ends with this process.
void stoppedProcess(const char* name)
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, name);
        raise(SIGSTOP);
        _exit(0);
    }
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED);
}

void giveAway(const std::string& path)
{
    must(lchown(path.c_str(), kStranger, kStranger) == 0);
}

void mountMemory(const char* place, unsigned long flags, const char* options)
{
    must(mount("none", place, "tmpfs", flags, options) == 0, "nothing can be mounted here");
}

void putSemaphore(unsigned value, mode_t mode = 0600)
{
    // Not here: who has it open may hold it.
    ASSERT_EQ(inChild([&] {
                  umask(0);
                  return sem_open("/SEM_UPDATE_CONTROL", O_CREAT, mode, value) != SEM_FAILED ? 0
                                                                                             : 1;
              }),
              0);
}

struct Fault
{
    const char* code;
    const char* severity;
    std::function<void(DoctorsDevice&)> make;
    const char* text;  ///< a part of what is said
};

std::ostream& operator<<(std::ostream& stream, const Fault& fault)
{
    return stream << fault.code;
}

std::vector<Fault> faults()
{
    using D = DoctorsDevice;
    return {
        {"verifier-missing", "error", [](D&) { fs::remove("/usr/lib/libkUEPUser.so"); },
         "every image counts as signed"},
        {"verifier-unusable", "error",
         [](D&) { writeFile("/usr/lib/libkUEPUser.so", "no library"); }, "libkUEPUser.so"},
        {"verifier-unusable", "error",
         [](D&) {
             fs::copy_file(TEST_MODULES "/verifier-without-entry.so", "/usr/lib/libkUEPUser.so",
                           fs::copy_options::overwrite_existing);
         },
         "no entry verifyFile"},
        {"trusted-place-open", "error", [](D&) { chmod("/etc/quillon/trusted-keys/a.pem", 0666); },
         "/etc/quillon/trusted-keys/a.pem can be written by others"},
        {"trusted-place-open", "error", [](D&) { giveAway("/usr/fwupdate/controls/lamp.so"); },
         "lamp.so belongs to user 61234"},
        {"keys-none", "error", [](D&) { fs::remove("/etc/quillon/trusted-keys/a.pem"); },
         "no image is installed"},
        {"key-unusable", "warning",
         [](D&) { writeFile("/etc/quillon/trusted-keys/b.pem", "no key"); }, "b.pem"},
        {"key-unusable", "warning",
         [](D&) {
             must(D::giveServiceToItsUser());
             chmod("/etc/quillon/trusted-keys/a.pem", 0600);
         },
         "a.pem: user 61990 cannot read it"},
        {"certificate-unusable", "warning",
         [](D&) { writeFile("/etc/quillon/provisioning-certificates/b.pem", "none"); }, "b.pem"},
        {"certificate-expired", "note",
         [](D&) {
             quillon::test::CertificateWishes wishes;
             wishes.endsAfter = -10;
             writeFile("/etc/quillon/provisioning-certificates/b.pem",
                       pemOf(quillon::test::makeMaker(wishes)));
         },
         "b.pem has expired"},
        {"policy-broken", "error",
         [](D&) { writeFile("/etc/quillon/trust.conf", "format1 = no\n"); }, "trust.conf:1"},
        {"policy-broken", "error",
         [](D&) { writeFile("/var/lib/quillon/trust/floors", "floor.lamp = many\n"); }, "floors:1"},
        {"policy-broken", "error",
         [](D&) {
             writeFile("/etc/quillon/trust.conf", "model = TV2024\n");
             must(D::giveServiceToItsUser());
             chmod("/etc/quillon/trust.conf", 0600);
         },
         "user 61990 cannot read it"},
        {"service-without-key", "error",
         [](D& device) {
             putRecord("start", device.service(), "{\"event\":\"serving\",\"key\":false}\n");
         },
         "refuses every image"},
        {"image-key-missing", "error", [](D&) { fs::remove(kKey); }, kPackage},
        {"image-key-exposed", "error", [](D&) { chmod(kKey, 0640); }, kKey},
        {"image-key-not-installed", "warning",
         [](D&) {
             fs::remove(kKey);
             writeFile(kPackage, "package");
         },
         "not been installed"},
        {"provisioning-unreadable", "error",
         [](D&) {
             fs::remove(kKey);
             writeFile(kPackage, "package");
             must(D::giveServiceToItsUser());
             chmod(kPackage, 0600);
         },
         "user 61990 cannot read"},
        {"provisioning-exposed", "warning",
         [](D&) {
             writeFile(kPackage, "package");
             chmod(kPackage, 0644);
         },
         "every user can read it"},
        {"certificates-none", "error",
         [](D&) {
             fs::remove(kKey);
             fs::remove("/etc/quillon/provisioning-certificates/a.pem");
             writeFile(kPackage, "package");
         },
         "accepts no provisioning package"},
        {"marker-owner", "error", [](D&) { giveAway("/tmp/fw_update_ready_usb"); },
         "fw_update_ready_usb belongs to user 61234"},
        {"marker-stale", "warning", [](D& device) { device.endService(); }, "has left its marker"},
        {"marker-missing", "warning", [](D&) { fs::remove("/tmp/fw_update_ready_usb"); },
         "about to end"},
        {"service-stopped", "error", [](D& device) { ::kill(device.service(), SIGSTOP); },
         "is stopped by a signal: it answers nobody"},
        {"service-not-running", "note",
         [](D& device) {
             device.endService();
             fs::remove("/tmp/fw_update_ready_usb");
         },
         "does not run"},
        {"ready-stale", "warning", [](D& device) { device.endService(); }, "but it does not run"},
        {"ready-missing", "warning", [](D&) { fs::remove("/tmp/.fw_service_ready_usb"); },
         "in vain"},
        {"queue-missing", "error", [](D&) { mq_unlink(FW_MQ_CONTROL_QUEUE); }, "queue of replies"},
        {"queue-owner", "error",
         [](D&) {
             const quillon::UniqueFd queue(mq_open(FW_MQ_SERVICE_QUEUE, O_RDONLY));
             must(fchown(queue.get(), kStranger, kStranger) == 0);
         },
         "queue of commands, /dev/mqueue/fwupdateservice_usb, belongs to user 61234"},
        {"queue-mode", "error", [](D&) { putQueue(FW_MQ_SERVICE_QUEUE, 0622); },
         "/dev/mqueue/fwupdateservice_usb, has the mode 0622 and belongs to root; it must have "
         "0666, "
         "or 0660 and belong to root"},
        {"queue-mode", "error",
         [](D&) {
             must(D::giveServiceToItsUser());
             const quillon::UniqueFd queue(mq_open(FW_MQ_CONTROL_QUEUE, O_RDONLY));
             must(fchmod(queue.get(), 0660) == 0 && fchown(queue.get(), kItsUser, kItsUser) == 0);
         },
         "mode 0660 and belongs to user 61990"},
        {"queue-shape", "error", [](D&) { putQueue(FW_MQ_SERVICE_QUEUE, 0666, 9); },
         "has 9 places"},
        {"queue-shape", "error", [](D&) { putQueue(FW_MQ_CONTROL_QUEUE, 0666, 10, 64); },
         "of 64 bytes"},
        {"replies-unread", "warning", [](D&) { sendTo(FW_MQ_CONTROL_QUEUE); },
         "no client reads: 1;"},
        {"commands-waiting", "warning",
         [](D& device) {
             sendTo(FW_MQ_SERVICE_QUEUE);
             device.endService();
         },
         "carries them out: 1"},
        {"update-list-blocked", "error", [](D&) { mkfifo("/tmp/fwupdate-off-list.txt", 0666); },
         "no plain file"},
        {"update-list-blocked", "error",
         [](D&) {
             writeFile("/tmp/fwupdate-off-list.txt", "");
             giveAway("/tmp/fwupdate-off-list.txt");
         },
         "belongs to user 61234"},
        {"client-lock-blocked", "error",
         [](D&) {
             const std::string lock = quillon::ClientLock::defaultPath();
             fs::remove(lock);
             fs::create_directory(lock);
         },
         "no file"},
        {"semaphore-stale", "error", [](D&) { putSemaphore(0); }, "nobody alive holds it"},
        {"semaphore-unusable", "error", [](D&) { writeFile(kSemaphore, "x"); }, "wrong size"},
        {"semaphore-unusable", "error",
         [](D&) {
             putSemaphore(1);
             giveAway(kSemaphore);
         },
         "belongs to user 61234"},
        {"semaphore-open", "error", [](D&) { putSemaphore(1, 0666); }, "open to others"},
        {"helper-missing", "warning", [](D&) { fs::remove("/run/quillon/privileged.sock"); },
         "no package can be mounted"},
        {"helper-missing", "error",
         [](D& device) {
             must(D::giveServiceToItsUser());
             device.endService();
         },
         "storage.sock is missing"},
        {"helper-owner", "warning", [](D&) { chmod("/run/quillon/privileged.sock", 0666); },
         "open to everybody"},
        {"helper-silent", "warning", [](D& device) { device.stopListening(); },
         "Connection refused"},
        {"helper-silent", "warning", [](D&) { stoppedProcess("quillon-privileged"); },
         "is stopped by a signal; no package can be mounted"},
        {"modules-none", "warning", [](D&) { fs::remove("/usr/fwupdate/controls/lamp.so"); },
         "nothing to update"},
        {"modules-unreadable", "error",
         [](D&) {
             must(D::giveServiceToItsUser());
             chmod(kModules, 0700);
         },
         "user 61990 cannot read"},
        {"module-unreadable", "error",
         [](D&) { fs::create_symlink("nothing", "/usr/fwupdate/controls/dead.so"); }, "dead.so"},
        {"module-unreadable", "error",
         [](D&) {
             must(D::giveServiceToItsUser());
             chmod("/usr/fwupdate/controls/lamp.so", 0750);
         },
         "lamp.so"},
        {"module-quarantined", "warning",
         [](D&) { writeFile("/usr/fwupdate/quarantine/tuner.so", "a library"); },
         "the module tuner is in quarantine"},
        {"module-quarantined", "warning",
         [](D&) {
             writeFile("/usr/fwupdate/controls/tuner.so", "a library");
             writeFile("/usr/fwupdate/quarantine/tuner.so", "a library");
         },
         "there is another one of that name now"},
        {"module-ended-start", "error",
         [](D& device) {
             device.endService();
             putRecord("start", 0,
                       "{\"event\":\"loading\",\"module\":\"lamp\"}\n"
                       "{\"event\":\"loaded\",\"module\":\"lamp\",\"result\":0}\n"
                       "{\"event\":\"loading\",\"module\":\"tuner\"}\n");
         },
         "the module tuner took the service down"},
        {"module-ended-start", "error",
         [](D& device) {
             device.endService();
             writeFile("/run/quillon/run/start.jsonl",
                       R"({"event":"began","clock":1e9,"pid":)" +
                           std::to_string(unreapedProcess()) +
                           "}\n{\"event\":\"loading\",\"module\":\"tuner\"}\n");
         },
         "the module tuner took the service down"},
        {"module-ended-start", "warning",
         [](D&) {
             putRecord("earlier-start", 0, "{\"event\":\"loading\",\"module\":\"tuner\"}\n");
         },
         "at the start before the last"},
        {"start-cut-off", "error",
         [](D& device) {
             device.endService();
             putRecord("start", 0, "");
         },
         "before it took commands"},
        {"module-refused", "warning",
         [](D& device) {
             putRecord("start", device.service(),
                       "{\"event\":\"loading\",\"module\":\"tuner\"}\n"
                       "{\"event\":\"loaded\",\"module\":\"tuner\",\"result\":-1,"
                       "\"reason\":\"no-entry\",\"detail\":\"doUpdate\"}\n"
                       "{\"event\":\"serving\",\"key\":true}\n");
         },
         "tuner: it has no entry doUpdate"},
        {"update-cut-off", "error",
         [](D&) { putRecord("update", 0, "{\"event\":\"started\",\"module\":\"tuner\"}\n"); },
         "during the update of tuner"},
        {"estimate-cut-off", "warning",
         [](D&) { putRecord("estimate", 0, "{\"event\":\"checking\",\"module\":\"tuner\"}\n"); },
         "at the module tuner"},
        {"marks-stale", "warning",
         [](D& device) {
             putRecord("estimate", device.service(),
                       "{\"event\":\"checking\",\"module\":\"tuner\"}\n"
                       "{\"event\":\"decided\",\"module\":\"tuner\",\"result\":1}\n"
                       "{\"event\":\"ended\",\"result\":5}\n");
         },
         "fails: tuner"},
        {"marks-stale", "warning",
         [](D& device) {
             putRecord("update", device.service(),
                       "{\"event\":\"started\",\"module\":\"tuner\"}\n"
                       "{\"event\":\"finished\",\"module\":\"tuner\",\"result\":-1}\n"
                       "{\"event\":\"ended\",\"result\":5}\n");
             putRecord("estimate", device.service(),
                       "{\"event\":\"checking\",\"module\":\"tuner\"}\n"
                       "{\"event\":\"decided\",\"module\":\"tuner\",\"reason\":\"no-image\","
                       "\"result\":-1}\n"
                       "{\"event\":\"checking\",\"module\":\"lamp\"}\n"
                       "{\"event\":\"decided\",\"module\":\"lamp\",\"reason\":\"no-image\","
                       "\"result\":-1}\n"
                       "{\"event\":\"ended\",\"result\":5}\n");
         },
         "fails: tuner"},
        {"package-mounted", "warning",
         [](D&) {
             const char* place = "/opt/usr/apps/appbinarymanager/emps/tuneremp";
             fs::create_directory(place);
             mountMemory(place, 0, "");
         },
         "emps/tuneremp is still mounted"},
        {"directory-unusable", "warning",
         [](D&) {
             std::error_code error;
             must(fs::remove_all(kShared, error) > 0 && !error, "it is a mount of the device's");
         },
         "sbox/ is missing"},
        {"directory-unusable", "warning", [](D&) { must(D::giveServiceToItsUser()); },
         "user 61990 cannot write to"},
        {"packages-open", "warning", [](D&) { chmod("/opt/usr/apps/appbinarymanager/emps", 0755); },
         "every user can enter"},
        {"space-low", "warning", [](D&) { mountMemory(kShared, 0, "size=64k"); }, "64 KiB"},
        {"read-only", "error", [](D&) { mountMemory(kShared, MS_RDONLY, ""); }, "sbox/"},
        {"not-executable", "error", [](D&) { mountMemory(kModules, MS_NOEXEC, ""); }, "noexec"},
    };
}

/// @param properties  the service's, and of the units after it
quillon::doctor::Findings judgedUnit(const std::string& properties)
{
    return quillon::doctor::judgeUnits("Id=quillon.service\n" + properties);
}

/// Faults of the machine that a test cannot make.
std::vector<std::pair<const char*, quillon::doctor::Findings>> faultsOfTheMachine()
{
    quillon::doctor::Surroundings in1970;
    return {
        {"clock-wrong", checkClock(in1970)},
        {"start-limit", judgedUnit("ActiveState=failed\nResult=start-limit-hit\n")},
        {"start-limit",
         judgedUnit("Result=signal\nActiveState=failed\nNRestarts=10\nStartLimitBurst=10\n")},
        {"unit-failed",
         judgedUnit("Result=timeout\nActiveState=failed\nNRestarts=2\nStartLimitBurst=10\n")},
        {"unit-masked", judgedUnit("LoadState=loaded\n\nId=quillon-storage.socket\n"
                                   "LoadState=masked\nActiveState=failed\n")},
    };
}

class CtlDoctorFault : public RootsMachine, public testing::WithParamInterface<Fault>
{
};

TEST_P(CtlDoctorFault, IsFoundAndNotBeforeItIsMade)
{
    const Fault& fault = GetParam();
    DoctorsDevice device;
    const auto before = findingsOf(runCtl({"--json", "doctor"}));
    ASSERT_EQ(before.size(), 1U) << "first finding: " << before.front().toStyledString();
    try {
        fault.make(device);
    } catch (const NotHere& reason) {
        GTEST_SKIP() << reason.why;
    }

    const CtlResult result = runCtl({"--json", "doctor"});

    const Json::Value finding = findingIn(findingsOf(result), fault.code);
    ASSERT_FALSE(finding.isNull()) << result.out << result.err;
    bool isThere = false;
    for (const Json::Value& one : findingsOf(result)) {
        isThere = isThere || (one["code"] == fault.code && one["severity"] == fault.severity &&
                              one["text"].asString().find(fault.text) != std::string::npos);
    }
    EXPECT_TRUE(isThere) << result.out;
    const std::string remedy = finding["remedy"].asString();
    EXPECT_FALSE(remedy.empty());
    for (const char* ofSystemd : {"systemctl", "journalctl", "systemd-tmpfiles"}) {
        EXPECT_TRUE(quillon::hasSystemd() || remedy.find(ofSystemd) == remedy.npos) << remedy;
    }
}

/// "VerifierMissing7": a code stands there once for each way to its fault.
std::string nameOf(const testing::TestParamInfo<Fault>& fault)
{
    std::string name;
    bool isFirst = true;
    for (const char* letter = fault.param.code; *letter != '\0'; ++letter) {
        if (*letter != '-') {
            name += isFirst ? static_cast<char>(*letter - 'a' + 'A') : *letter;
        }
        isFirst = *letter == '-';
    }
    return name + std::to_string(fault.index);
}

INSTANTIATE_TEST_SUITE_P(, CtlDoctorFault, testing::ValuesIn(faults()), nameOf);

TEST(CtlDoctorMachine, FaultsAreJudged)
{
    for (const auto& [code, findings] : faultsOfTheMachine()) {
        ASSERT_EQ(findings.size(), 1U) << code;
        EXPECT_STREQ(findings[0].code, code);
    }
    EXPECT_EQ(faultsOfTheMachine()[2].second[0].text,
              "systemd no longer starts the service: it failed too often (signal)");
    quillon::doctor::Surroundings now;
    now.now = std::time(nullptr);
    EXPECT_TRUE(checkClock(now).empty());
    EXPECT_TRUE(judgedUnit("Result=success\nActiveState=active\nNRestarts=12\n").empty());
    EXPECT_TRUE(
        judgedUnit("LoadState=loaded\n\nId=quillon-storage.socket\nLoadState=not-found\n").empty());
}

std::set<std::string> codesIn(const std::string& text, const char* expression)
{
    const std::regex regex(expression, std::regex::ECMAScript | std::regex::multiline);
    std::set<std::string> codes;
    for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
        codes.insert((*it)[1].str());
    }
    return codes;
}

TEST(CtlDoctorPage, ListsEveryCodeThatTheProgramKnowsAndATestMakes)
{
    std::string source = readAll(QUILLON_SOURCE_DIR "/tools/quillonctl/doctor/finding.h");
    for (const char* topic : {"channel", "machine", "module", "trust"}) {
        source += readAll(QUILLON_SOURCE_DIR "/tools/quillonctl/doctor/" + std::string(topic) +
                          "-checks.cpp");
    }
    const auto known = codesIn(
        source,
        "(?:error\\(|warning\\(|note\\(|severity,|(?:keys|certificates)\",)\\s*\"([a-z-]+)\"");
    const auto listed =
        codesIn(readAll(QUILLON_SOURCE_DIR "/docs/troubleshooting.md"), "^\\| `([a-z-]+)` \\|");
    std::set<std::string> made = {"not-checked"};  // see ctl-doctor-test.cpp
    for (const Fault& fault : faults()) {
        made.insert(fault.code);
    }
    for (const auto& [code, findings] : faultsOfTheMachine()) {
        made.insert(code);
    }

    EXPECT_EQ(listed, known);
    EXPECT_EQ(made, known);
}

}  // namespace
