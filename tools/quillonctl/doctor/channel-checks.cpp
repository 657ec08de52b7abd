#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/fd.h"
#include "client/client-lock.h"
#include "fw-update-mqdata.h"
#include "src/support/paths.h"
#include "tools/quillonctl/doctor/checks.h"
#include "tools/quillonctl/file-locks.h"
#include "tools/quillonctl/modules/slot-holders.h"
#include "tools/quillonctl/modules/slot-locks.h"
#include "tools/quillonctl/next-commands.h"
#include "tools/shared/services-user.h"

#ifdef QUILLON_STORAGE_SOCKET
#include "platform/protocols/storage-protocol.h"
#endif

namespace quillon::doctor {

namespace {

constexpr const char* kSemaphoreFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr mode_t kEverybodys = 0666;
constexpr mode_t kGroups = 0660;
constexpr mode_t kOwners = 0600;

bool isPlain(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_nlink == 1;
}

/// Whether a client holds the lock that lets one at a time connect. By the kernel's list: to try
/// the lock would keep a client waiting.
bool isClientConnected()
{
    const auto status = statusOf(ClientLock::defaultPath());
    return status && flockHolder(*status);
}

std::string octal(mode_t mode)
{
    char text[8];
    static_cast<void>(std::snprintf(text, sizeof text, "%04o", mode));
    return text;
}

/// Restarts the service with a fresh file. Only systemd's unit replaces each of them by itself.
std::string makeAnew(const std::string& path)
{
    return (hasSystemd() ? "" : "rm -rf " + path + "; ") + restartService();
}

Findings checkQueue(const Surroundings& around, const char* name, const char* what)
{
    const std::string path = std::string("/dev/mqueue") + name;
    const std::string text = std::string("the queue of ") + what + ", " + path + ", ";
    const UniqueFd queue(mq_open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!queue && errno == EACCES) {
        return {notChecked(path)};
    }
    struct stat status = {};
    mq_attr attributes = {};
    if (!queue || fstat(queue.get(), &status) != 0 || mq_getattr(queue.get(), &attributes) != 0) {
        if (!around.service) {
            return {};
        }
        return {error("queue-missing", text + "is missing, so no client gets through",
                      restartService())};
    }
    if (isStrangers(status)) {
        return {
            error("queue-owner",
                  text + "belongs to " + nameOfUser(status.st_uid) + ", who reads what is in it",
                  restartService())};
    }
    const mode_t mode = status.st_mode & ACCESSPERMS;
    if (mode != kEverybodys && (mode != kGroups || status.st_uid != 0)) {
        return {error("queue-mode",
                      text + "has the mode " + octal(mode) + " and belongs to " +
                          nameOfUser(status.st_uid) +
                          "; it must have 0666, or 0660 and belong to root",
                      restartService())};
    }
    if (attributes.mq_msgsize != static_cast<long>(sizeof(MQData)) ||
        attributes.mq_maxmsg != FW_MQ_MAX_MESSAGES) {
        return {error("queue-shape",
                      text + "has " + std::to_string(attributes.mq_maxmsg) + " places of " +
                          std::to_string(attributes.mq_msgsize) + " bytes, not " +
                          std::to_string(FW_MQ_MAX_MESSAGES) + " of " +
                          std::to_string(sizeof(MQData)),
                      restartService())};
    }
    const std::string count = std::to_string(attributes.mq_curmsgs);
    const bool isOfReplies = name == std::string(FW_MQ_CONTROL_QUEUE);
    if (isOfReplies && attributes.mq_curmsgs > 0 && !isClientConnected()) {
        return {warning("replies-unread",
                        "replies wait that no client reads: " + count +
                            "; the service waits once there are " +
                            std::to_string(FW_MQ_MAX_MESSAGES),
                        "quillonctl progress")};
    }
    if (!isOfReplies && attributes.mq_curmsgs > 0 && around.isServiceGone()) {
        return {warning(
            "commands-waiting",
            "commands wait for the next start of the service, which carries them out: " + count,
            "rm " + path + " if that is not wanted")};
    }
    return {};
}

#ifdef QUILLON_STORAGE_SOCKET

constexpr int kAnswerMilliseconds = 10000;

/// @return why nobody listens; empty when somebody does, nothing when this user may not ask
std::optional<std::string> faultOfSocket(const char* path, const SecretBytes& request)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address.sun_path) {
        return "its path is too long";
    }
    std::string_view(path).copy(address.sun_path, sizeof address.sun_path - 1);
    const UniqueFd connection(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        return errno == EACCES ? std::nullopt : std::optional<std::string>(std::strerror(errno));
    }
    if (request.empty()) {
        return "";
    }
    if (send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        return std::strerror(errno);
    }
    pollfd waiting = {connection.get(), POLLIN, 0};
    if (uninterrupted([&] { return poll(&waiting, 1, kAnswerMilliseconds); }) <= 0) {
        return "no answer within 10 seconds";
    }
    char answer[sizeof(storage::AnswerHead)] = {};
    return recv(connection.get(), answer, sizeof answer, MSG_TRUNC) == sizeof answer
               ? ""
               : "it ends the connection without an answer";
}

/// A process that runs as root and listens at a socket.
struct HelperAtSocket
{
    Severity severity;
    const char* path;
    const char* unit;
    const char* effect;   ///< what there is not without it
    std::string without;  ///< the remedy where systemd does not run
};

std::string remedyOf(const HelperAtSocket& helper, const char* verb)
{
    return hasSystemd() ? std::string("systemctl ") + verb + " " + helper.unit : helper.without;
}

/// @param request  what it answers without doing anything; empty: it is enough that it listens
Findings checkHelper(const HelperAtSocket& helper, const SecretBytes& request)
{
    const Severity severity = helper.severity;
    const char* path = helper.path;
    const auto status = statusOf(path);
    if (!status || !S_ISSOCK(status->st_mode)) {
        return {{severity, "helper-missing",
                 std::string("the socket ") + path + " is missing, so " + helper.effect,
                 remedyOf(helper, "enable --now")}};
    }
    if (isStrangers(*status) || (status->st_mode & S_IWOTH) != 0) {
        return {{severity, "helper-owner",
                 std::string("the socket ") + path + " belongs to " + nameOfUser(status->st_uid) +
                     ", or is open to everybody",
                 remedyOf(helper, "restart")}};
    }
    const std::optional<std::string> fault = faultOfSocket(path, request);
    if (!fault) {
        return {notChecked(std::string("who listens at ") + path)};
    }
    if (fault->empty()) {
        return {};
    }
    return {{severity, "helper-silent",
             std::string("nobody answers at ") + path + ": " + *fault + "; " + helper.effect,
             remedyOf(helper, "restart")}};
}

#endif

/// Reads the value from the file's bytes: a process that maps the file counts as a possible holder.
/// @return -1 when it cannot be read
int valueOfSemaphore()
{
    const UniqueFd file(open(kSemaphoreFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    sem_t semaphore = {};
    int value = -1;
    if (read(file.get(), &semaphore, sizeof semaphore) == static_cast<ssize_t>(sizeof semaphore)) {
        static_cast<void>(sem_getvalue(&semaphore, &value));
    }
    return value;
}

}  // namespace

Findings checkMarkers(const Surroundings& around)
{
    Findings findings;
    for (const char* path : {paths::kLabellingReady, paths::kLifeMarker, paths::kReadyEvent,
                             paths::kIgnoreResumeEvent}) {
        const auto status = statusOf(path);
        if (status && isStrangers(*status)) {
            findings.push_back(error("marker-owner",
                                     std::string(path) + " belongs to " +
                                         nameOfUser(status->st_uid) +
                                         ", who can end or hold up the service with it",
                                     makeAnew(path)));
        }
    }
    const auto life = statusOf(paths::kLifeMarker);
    const bool isThere = life && S_ISREG(life->st_mode);
    if (isThere && around.isServiceGone()) {
        findings.push_back(
            warning("marker-stale",
                    std::string("the service does not run, but has left its marker ") +
                        paths::kLifeMarker + ": it was killed, or a module has ended it",
                    serviceLog() + ", then: " + restartService()));
    }
    if (!isThere && around.service) {
        findings.push_back(warning("marker-missing",
                                   std::string("the service is about to end, since its marker ") +
                                       paths::kLifeMarker + " is gone",
                                   restartService()));
    }
    if (around.service && isStopped(*around.service)) {
        const std::string process = std::to_string(*around.service);
        findings.push_back(
            error("service-stopped",
                  "the service, process " + process + ", is stopped by a signal: it answers nobody",
                  "kill -CONT " + process));
    }
    if (!isThere && around.isServiceGone()) {
        findings.push_back(note("service-not-running",
                                "the service does not run: nothing can be updated from a stick",
                                startService()));
    }
    return findings;
}

Findings checkReadiness(const Surroundings& around)
{
    const auto event = statusOf(paths::kReadyEvent);
    const bool isReady = event && S_ISREG(event->st_mode);
    if (isReady && around.isServiceGone()) {
        return {warning("ready-stale",
                        std::string("the event ") + paths::kReadyEvent +
                            " says that the service is ready, but it does not run",
                        restartService())};
    }
    const std::optional<RecordedRun>& start = around.start;
    const bool serves = start && start->result && around.service == start->service;
    if (!isReady && serves && kHasStockPlatform) {
        return {warning("ready-missing",
                        std::string("the service is ready, but the event ") + paths::kReadyEvent +
                            " is missing: programs wait for it in vain",
                        restartService())};
    }
    return {};
}

Findings checkQueues(const Surroundings& around)
{
    Findings findings = checkQueue(around, FW_MQ_SERVICE_QUEUE, "commands");
    append(findings, checkQueue(around, FW_MQ_CONTROL_QUEUE, "replies"));
    return findings;
}

Findings checkUpdateList(const Surroundings& around)
{
    const auto status = statusOf(paths::kUpdateList);
    if (!status || (isPlain(*status) && status->st_uid == around.servicesUser)) {
        return {};
    }
    return {
        error("update-list-blocked",
              std::string(paths::kUpdateList) + " belongs to " + nameOfUser(status->st_uid) +
                  ", or is no plain file: packages cannot be checked, or others change the list",
              makeAnew(paths::kUpdateList))};
}

Findings checkClientLock(const Surroundings& /*around*/)
{
    const std::string path = ClientLock::defaultPath();
    const auto status = statusOf(path);
    if (!status || (S_ISREG(status->st_mode) && (status->st_mode & ALLPERMS) == kEverybodys)) {
        return {};
    }
    return {error("client-lock-blocked",
                  "no client gets through, since " + path + ", of " + nameOfUser(status->st_uid) +
                      ", is no file, or not open to everybody",
                  makeAnew(path))};
}

Findings checkSemaphore(const Surroundings& /*around*/)
{
    const auto status = statusOf(kSemaphoreFile);
    if (!status) {
        return {};
    }
    if (isPlain(*status) && !isStrangers(*status) && access(kSemaphoreFile, R_OK | W_OK) != 0) {
        return {notChecked("the update semaphore")};
    }
    std::string trouble;
    const std::unique_ptr<SlotLocks> locks = SlotLocks::open(trouble);
    if (!trouble.empty()) {
        return {
            error("semaphore-unusable",
                  "no module can be updated, since the update semaphore cannot be used: " + trouble,
                  std::string("rm ") + kSemaphoreFile + ", as root, while nothing is updated")};
    }
    if ((status->st_mode & ALLPERMS) != kOwners) {
        return {error("semaphore-open",
                      std::string(kSemaphoreFile) +
                          " is open to others than its owner, who can hold up "
                          "every update",
                      std::string("chmod 600 ") + kSemaphoreFile)};
    }
    if (!locks || valueOfSemaphore() != 0) {
        return {};
    }
    const SlotHolders holders = findSlotHolders(*locks);
    if (!holders.alive.empty()) {
        return {};
    }
    if (!holders.isComplete) {
        return {notChecked("who holds the update semaphore")};
    }
    return {error("semaphore-stale",
                  "the update semaphore is locked and nobody alive holds it: every update waits",
                  "quillonctl modules unlock")};
}

Findings checkHelpers(const Surroundings& around)
{
    Findings findings;
#ifdef QUILLON_STORAGE_SOCKET
    // A service of root's, as one that was started by hand, reads the storage itself.
    const auto process = statusOf("/proc/" + std::to_string(around.service.value_or(-1)));
    const uid_t user = process ? process->st_uid : around.servicesUser;
    if (user != 0 || statusOf(QUILLON_STORAGE_SOCKET)) {
        findings =
            checkHelper({Severity::kError, QUILLON_STORAGE_SOCKET, "quillon-storage.socket",
                         "the service gets no image key",
                         "rm -f " QUILLON_STORAGE_SOCKET
                         ", and run quillon-service as root: it reads the storage itself then"},
                        storage::encodeRead("doctor"));
    }
    append(findings,
           checkHelper({Severity::kWarning, QUILLON_PRIVILEGED_SOCKET, "quillon-privileged.socket",
                        "no package can be mounted", restartMountingHelper()},
                       {}));
    // No request to it changes nothing, and the kernel accepts connections while it is stopped.
    if (const auto helper = otherProcess("quillon-privile"); helper && isStopped(*helper)) {
        findings.push_back(warning("helper-silent",
                                   "the mounting helper, process " + std::to_string(*helper) +
                                       ", is stopped by a signal; no package can be mounted",
                                   restartMountingHelper()));
    }
#else
    static_cast<void>(around);
#endif
    return findings;
}

}  // namespace quillon::doctor
