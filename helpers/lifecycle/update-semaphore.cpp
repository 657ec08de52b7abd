#include "helpers/lifecycle/update-semaphore.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "base/fd.h"
#include "base/mappings.h"
#include "helpers/lifecycle/taken-name.h"
#include "helpers/lifecycle/unit-failure.h"

namespace quillon::unit {

namespace {

// Where the C library keeps "/SEM_UPDATE_CONTROL".
constexpr const char* kPath = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr mode_t kMode = 0600;

/// @return -1 when it cannot be read
int valueOf(const UniqueFd& file)
{
    void* memory = mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    int value = -1;
    if (memory != MAP_FAILED) {
        static_cast<void>(sem_getvalue(static_cast<sem_t*>(memory), &value));
        munmap(memory, sizeof(sem_t));
    }
    return value;
}

/// What is wrong with what stands at the name; empty when nothing is.
std::string faultOf(const struct stat& status, uid_t owner)
{
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        return "is no file of its own";
    }
    if (status.st_uid != 0 && status.st_uid != owner) {
        return "belongs to user " + std::to_string(status.st_uid);
    }
    if ((status.st_mode & ALLPERMS) != kMode) {
        return "has another mode than 0600";
    }
    if (status.st_size != static_cast<off_t>(sizeof(sem_t))) {
        return "has the wrong size";
    }
    // Only now is it sure that nobody can shorten it while we look at its contents.
    const UniqueFd file(open(kPath, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    return valueOf(file) == 1 ? "" : "is not free";
}

/// By /proc/PID/status, since the owner of the directory is root for a process that hides itself.
/// By the beginning of a line, since the process has chosen its name, which stands there as well.
bool isOf(const std::filesystem::path& process, uid_t owner)
{
    std::ifstream status(process / "status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string key;
        uid_t real = 0;
        uid_t effective = 0;
        if (words >> key >> real >> effective && key == "Uid:") {
            return effective == 0 || effective == owner;
        }
    }
    return false;
}

/// A process of root's or the owner's that has the semaphore open, or may have: one that cannot be
/// looked into counts. Empty when there is none.
std::string userOf(const struct stat& semaphore, uid_t owner)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::string number = entry.path().filename();
        const auto process = static_cast<pid_t>(std::strtol(number.c_str(), nullptr, 10));
        // The owner first: the mappings of another user's processes may take long to read.
        if (process > 0 && isOf(entry.path(), owner) &&
            mappingOf(process, semaphore) != Mapping::kNone) {
            return number;
        }
    }
    return "";
}

/// Who updated first with root's rights has made it root's: the owner could not open it. It stays
/// the same file, so it means nothing to who has it open.
void giveTo(uid_t owner, gid_t group, const struct stat& sound)
{
    const UniqueFd file(open(kPath, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    const bool isSame = fstat(file.get(), &status) == 0 && status.st_dev == sound.st_dev &&
                        status.st_ino == sound.st_ino;
    if (!isSame || fchown(file.get(), owner, group) != 0) {
        failWithErrno("cannot give the update semaphore to the service's user");
    }
}

void makeFree(uid_t owner, gid_t group)
{
    sem_t semaphore = {};
    if (sem_init(&semaphore, 1, 1) != 0) {
        failWithErrno("cannot make the update semaphore");
    }
    putFile(kPath, owner, group, kMode,
            {reinterpret_cast<const char*>(&semaphore), sizeof semaphore});
}

}  // namespace

void provideSemaphore(uid_t owner, gid_t group)
{
    struct stat status = {};
    if (lstat(kPath, &status) != 0) {
        makeFree(owner, group);
        return;
    }
    const std::string fault = faultOf(status, owner);
    if (fault.empty()) {
        if (status.st_uid != owner) {
            giveTo(owner, group, status);
        }
        return;
    }
    const std::string user = userOf(status, owner);
    const std::string what = std::string("the update semaphore ") + kPath + " " + fault;
    if (!user.empty()) {
        say(Priority::kWarning,
            what + ", and stays, since process " + user +
                " may have it open; if that is not updating, end it and restart the service");
        return;
    }
    makeFree(owner, group);
    say(Priority::kWarning, what + " and nobody of ours has it open: made it anew");
}

}  // namespace quillon::unit
