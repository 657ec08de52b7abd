#include "unit/tools/ctl-doctor-device.h"

#include <fcntl.h>
#include <json/reader.h>
#include <mqueue.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "fw-update-mqdata.h"
#include "support/files.h"
#include "support/host-user.h"
#include "support/wait.h"
#include "unit/verifier/test-keys.h"

namespace {

namespace fs = std::filesystem;
using quillon::test::readAll;
using quillon::test::writeFile;

constexpr const char* kSocket = "/run/quillon/privileged.sock";
constexpr pid_t kGone = 0x3ffffff;  // no process has such a number

quillon::UniqueFd listenAt(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
    quillon::UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path, 0660) != 0 || listen(listener.get(), 8) != 0) {
        throw std::runtime_error(std::string("cannot listen at ") + path);
    }
    return listener;
}

void putTrust()
{
    quillon::test::trust("a");
    quillon::test::trustProvisioning("a");
    fs::copy_file(VERIFIER_LIBRARY, "/usr/lib/libkUEPUser.so");
    chmod("/usr/lib/libkUEPUser.so", 0644);
}

}  // namespace

void RootsMachine::SetUp()
{
    struct stat root = {};
    if (stat("/", &root) != 0 || root.st_uid != 0) {
        GTEST_SKIP() << "\"/\" is not root's here";
    }
    if (!quillon::test::forgetHostsUser("quillon")) {
        GTEST_SKIP() << "the service's user is this machine's";
    }
}

std::vector<Json::Value> findingsOf(const CtlResult& result)
{
    std::vector<Json::Value> findings;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream(line) >> findings.emplace_back();
    }
    return findings;
}

Json::Value findingIn(const std::vector<Json::Value>& findings, const std::string& code)
{
    for (const Json::Value& finding : findings) {
        if (finding["code"] == code) {
            return finding;
        }
    }
    return {};
}

void putRecord(const std::string& name, pid_t process, const std::string& lines)
{
    writeFile("/run/quillon/run/" + name + ".jsonl",
              R"({"event":"began","clock":1.5,"at":1763856000,"directory":"/opt/media/gone/",)"
              R"("pid":)" +
                  std::to_string(process == 0 ? kGone : process) + "}\n" + lines);
}

void putQueue(const char* name, mode_t mode, long places, long size)
{
    mq_unlink(name);
    mq_attr attributes = {};
    attributes.mq_maxmsg = places;
    attributes.mq_msgsize = size != 0 ? size : static_cast<long>(sizeof(MQData));
    const quillon::UniqueFd queue(mq_open(name, O_RDWR | O_CREAT | O_EXCL, 0600, &attributes));
    if (!queue || fchmod(queue.get(), mode) != 0) {
        throw std::runtime_error(std::string("cannot make ") + name);
    }
}

void sendTo(const char* name)
{
    const MQData record = {};
    const quillon::UniqueFd queue(mq_open(name, O_WRONLY | O_NONBLOCK));
    if (mq_send(queue.get(), reinterpret_cast<const char*>(&record), sizeof record, 0) != 0) {
        throw std::runtime_error(std::string("cannot send to ") + name);
    }
}

NamedProcess::NamedProcess(const std::string& name, uid_t user) : program_("/tmp/" + name)
{
    fs::copy_file("/bin/sleep", program_);
    id_ = fork();
    if (id_ == 0) {
        if (user == 0 || setuid(user) == 0) {
            execl(program_.c_str(), name.c_str(), "infinity", nullptr);
        }
        _exit(127);
    }
    const std::string seen = "/proc/" + std::to_string(id_) + "/comm";
    if (!quillon::test::eventually([&] { return readAll(seen) == name + "\n"; })) {
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
        throw std::runtime_error(name + " does not start");
    }
}

NamedProcess::~NamedProcess()
{
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
    fs::remove(program_);
}

DoctorsDevice::DoctorsDevice()
{
    umask(0022);
    putTrust();
    writeFile("/var/lib/quillon/secure-storage/quillon.cred", "sealed");
    chmod("/var/lib/quillon/secure-storage", 0700);
    chmod("/var/lib/quillon/secure-storage/quillon.cred", 0600);
    fs::copy_file(TEST_MODULES "/full.so", "/usr/fwupdate/controls/lamp.so");
    chmod("/opt/usr/apps/appbinarymanager/emps", 02770);
    for (const char* marker :
         {"/tmp/smack_early_ready", "/tmp/fw_update_ready_usb", "/tmp/.fw_service_ready_usb"}) {
        writeFile(marker, "");
    }
    putQueue(FW_MQ_SERVICE_QUEUE);
    putQueue(FW_MQ_CONTROL_QUEUE);
    listener_ = listenAt(kSocket);
    service_.emplace("quillon-service");
    putRecord("start", service(),
              "{\"event\":\"loading\",\"module\":\"lamp\"}\n"
              "{\"event\":\"loaded\",\"module\":\"lamp\",\"result\":0}\n"
              "{\"event\":\"serving\",\"key\":true}\n");
}

bool DoctorsDevice::giveServiceToItsUser()
{
    return chown("/var/lib/quillon", kItsUser, kItsUser) == 0;
}
