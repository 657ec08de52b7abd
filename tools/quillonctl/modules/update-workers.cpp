#include "tools/quillonctl/modules/update-workers.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "tools/quillonctl/modules/foreign-end.h"

namespace quillon {

namespace {

std::mutex g_mutex;
std::vector<UpdateWorker> g_workers;

pid_t thisThread()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

void note(const char* firmwareName)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_workers.push_back({firmwareName, thisThread(), std::chrono::steady_clock::now()});
}

}  // namespace

std::vector<UpdateWorker> updateWorkers()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_workers;
}

bool isAlive(const UpdateWorker& worker)
{
    return syscall(SYS_tgkill, getpid(), worker.thread, 0) == 0 || errno != ESRCH;
}

}  // namespace quillon

extern "C" {
int __real_prctl(int option, const char* name, unsigned long third, unsigned long fourth,
                 unsigned long fifth);

// Process modules run on the main thread, and are not watched.
__attribute__((used)) int __wrap_prctl(int option, const char* name, unsigned long third,
                                       unsigned long fourth, unsigned long fifth)
{
    if (option == PR_SET_NAME && quillon::thisThread() != getpid()) {
        quillon::note(name);
        quillon::bearStackOverflow();
    }
    return __real_prctl(option, name, third, fourth, fifth);
}
}
