#include "quillon-service.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <future>
#include <system_error>

#include "fw-update-mqdata.h"
#include "platform/events.h"
#include "platform/secure-storage.h"
#include "platform/watchdog.h"
#include "src/fw-update-mqueue-manager.h"
#include "src/fw-update-symbol-manager.h"
#include "support/log.h"
#include "support/module-observer.h"
#include "support/paths.h"
#include "support/run-record.h"

#ifndef QUILLON_CALLER_IDENTITY
#define QUILLON_CALLER_IDENTITY 0, 0, 0, 0, 0
#endif

unsigned char* dec_key = nullptr;
std::uint32_t dec_key_size = 0;
char iamge_path[128] = {};
GMainLoop* g_main_loop = nullptr;

namespace {

constexpr const char* kKeyItem = "quillon";
constexpr int kKeyMissing = 5;
constexpr unsigned int kKeyReadMode = 33;
constexpr std::size_t kDigitPair = 3;       // characters, with their end
constexpr std::size_t kCipherKeyText = 32;  // characters that the cipher takes from dec_key

constexpr useconds_t kPollPause = 10000;
constexpr int kLabellingPolls = 6000;
constexpr int kReadinessRetries = 59;

constexpr int kWatchdogSeconds = 60;
constexpr guint kTickMilliseconds = 10000;

constexpr int kProgressDone = 100;
constexpr int kProgressFailed = -1;
constexpr int kMostRunningPercent = 99;

// A record says -1 until its command has been carried out.
MQData newRecord(MQCommand command)
{
    MQData record{};
    record.command = command;
    record.result = MQ_RESULT_REFUSED;
    record.kind = FW_MQ_KIND;
    return record;
}

bool haveKey()
{
    return dec_key != nullptr && dec_key_size != 0;
}

// The update task and the control task share a plain int by reference.
int loadProgress(const int& progress)
{
    return __atomic_load_n(&progress, __ATOMIC_ACQUIRE);
}

void storeProgress(int& progress, int value)
{
    __atomic_store_n(&progress, value, __ATOMIC_RELEASE);
}

// Wraps in 32 bits: the difference of two readings stays right for runs of up to 2147 s.
std::uint32_t microseconds(const timespec& time)
{
    return static_cast<std::uint32_t>(time.tv_sec) * 1000000U +
           static_cast<std::uint32_t>(time.tv_nsec / 1000);
}

int secondsBetween(const timespec& start, const timespec& now)
{
    return static_cast<std::int32_t>(microseconds(now) - microseconds(start)) / 1000000;
}

int percentOf(int elapsedSeconds, int expectedSeconds)
{
    if (expectedSeconds == 0) {
        return 0;
    }
    return std::min(elapsedSeconds * 100 / expectedSeconds, kMostRunningPercent);
}

// Without a terminator, so that a run that reads the path meanwhile never finds it cut short. What
// an earlier, longer path left behind it stays in place.
void storeImagePath(const MQData& request)
{
    const std::size_t length = strnlen(request.path, sizeof(request.path));
    std::memcpy(iamge_path, request.path, std::min(length, sizeof(iamge_path) - 1));
}

}  // namespace

int sdp_install_securestorage_code()
{
    const char* path = quillon::paths::kProvisioningPackage;
    const int result = sdp_install_from_file(path, 2, 0);
    if (result == 0 || result == 2) {
        FW_LOGE("[%s, ret=%d ], install ok", path, result);
    } else {
        FW_LOGE("Error: [%s, ret=%d ], install fail", path, result);
    }
    return result & ~2;
}

int ss_read_and_use_securestorage_code()
{
    ss_credential credential{};
    ss_init_credential(&credential, QUILLON_CALLER_IDENTITY, 1, 0);

    unsigned char* data = nullptr;
    std::size_t size = 0;
    const int result = ss_read(&data, &size, 0, 0, kKeyItem, &credential, kKeyReadMode);
    if (result == kKeyMissing) {
        FW_LOGE("Error: %s is not installed. Need to re-install", kKeyItem);
        sdp_install_securestorage_code();
        return -1;
    }
    if (result != 0) {
        FW_LOGE("Error: ss_read error %d", result);
        return result;
    }

    FW_LOGE("decryption key load success. key_size : %zu", size);
    // Never freed: it is the key for the rest of the process. A short key is padded with
    // zeros to what the cipher reads.
    char* text = static_cast<char*>(std::calloc(std::max(2 * size, kCipherKeyText) + 1, 1));
    if (text == nullptr) {
        ss_free_buffer(data);
        FW_LOGE("Error: no memory for the decryption key");
        return ENOMEM;
    }
    dec_key = reinterpret_cast<unsigned char*>(text);
    // The bound cuts keys of one and two bytes. Three bytes, a pair and its end, have room
    // anywhere.
    const std::size_t bound = std::min(size, kDigitPair);
    for (std::size_t i = 0; i < size; ++i) {
        static_cast<void>(std::snprintf(text + 2 * i, bound, "%02x", data[i]));
    }
    dec_key_size = static_cast<std::uint32_t>(2 * size);
    ss_free_buffer(data);
    return 0;
}

int set_service_running_done()
{
    const char* event = quillon::paths::kReadyEvent;
    FW_LOGI("control task is ready.");

    if (LwipcEventDone(event) != 0) {
        int counter = kReadinessRetries;
        while (LwipcEventDone(event) != 0) {
            --counter;
            usleep(kPollPause);
            if (counter == -1) {
                FW_LOGE("Error: LwipcEventDone %s failed: %m\n", event);
                return -1;
            }
        }
        // A success on the very last retry counts as a failure: it came too late.
        if (counter == 0) {
            FW_LOGE("Error: LwipcEventDone %s failed: %m\n", event);
            return -1;
        }
    }

    FW_LOGI("lwipc control is ready.");
    return 0;
}

gboolean notify_callback(gpointer /*data*/)
{
    FW_LOGD("notify_callback");
    smart_deadlock_watchdog_notify();

    struct stat marker = {};
    if (stat(quillon::paths::kLifeMarker, &marker) == 0) {
        return TRUE;
    }

    if (g_main_loop_is_running(g_main_loop) != FALSE) {
        g_main_loop_quit(g_main_loop);
    }
    MQData stop = newRecord(MQ_COMMAND_STOP);
    FWUpdateMQManager::getInstance()->sendToService(&stop);
    FW_LOGE("check_main_loop_stop thread stop");
    return TRUE;
}

int firmware_main_task()
{
    if (smart_deadlock_register_watchdog_service(kWatchdogSeconds) != 0) {
        FW_LOGE("Error: [fwupdate-daemon] smart_deadlock_register_watchdog_service fail!\n");
        return -1;
    }
    g_timeout_add(kTickMilliseconds, notify_callback, nullptr);

    g_main_loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(g_main_loop);
    g_main_loop_unref(g_main_loop);
    g_main_loop = nullptr;

    FW_LOGE("firmware_main_task thread stop\n");
    return 0;
}

int firmware_update_task(bool& /*isUpdating*/, int& progress)
{
    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
    if (!haveKey()) {
        storeProgress(progress, kProgressFailed);
        FW_LOGE("Error: decrption key is invalid");
        return 0;
    }

    int result = -1;
    try {
        result = manager->doUpdateUSB(dec_key, iamge_path);
    } catch (const std::exception& error) {
        FW_LOGE("Error: update task exception %s", error.what());
    } catch (...) {
        // The one that cannot be had is the C library's: a plug-in ended the thread.
        if (std::current_exception() == nullptr) {
            storeProgress(progress, kProgressFailed);
            throw;
        }
        FW_LOGE("Error: update task exception of an unknown kind");
    }
    if (result == -1) {
        storeProgress(progress, kProgressFailed);
        FW_LOGE("Error: doUpdateUSB fail");
        return 0;
    }
    storeProgress(progress, kProgressDone);
    return 0;
}

int firmware_control_task()
{
    static bool isTaskRunning = true;

    FWUpdateMQManager* queues = FWUpdateMQManager::getInstance();
    FWUpdateSymbolManager* manager = FWUpdateSymbolManager::getInstance();
    bool isUpdating = false;
    int progress = 0;
    int expectedTime = 0;
    timespec startTime{};
    std::future<int> updateFuture;

    while (isTaskRunning) {
        MQData reply = newRecord(MQ_COMMAND_REPLY);
        MQData request{};
        if (queues->receiveFormControl(&request) == -1) {
            usleep(kPollPause);  // a queue that stays broken must not take the whole processor
            continue;
        }

        switch (request.command) {
            case MQ_COMMAND_START: {
                if (isUpdating) {
                    FW_LOGE("Service is being updated.");
                    queues->sendToControl(&reply);
                    break;
                }
                // Asked for once in the life of the process: later runs keep the
                // expected time of the first.
                if (expectedTime == 0) {
                    if (!haveKey()) {
                        FW_LOGE("Error: decrption key is invalid");
                        break;
                    }
                    if (manager->getFirmwareUpdateTime(dec_key, iamge_path, expectedTime) == -1) {
                        FW_LOGE("Error: update task getFirmwareUpdateTime fail");
                        break;
                    }
                }
                storeProgress(progress, 0);
                isUpdating = true;
                clock_gettime(CLOCK_MONOTONIC, &startTime);
                try {
                    updateFuture = std::async(std::launch::async, firmware_update_task,
                                              std::ref(isUpdating), std::ref(progress));
                } catch (const std::system_error& error) {
                    FW_LOGE("Error: update task cannot be started: %s", error.what());
                    storeProgress(progress, kProgressFailed);
                }
                reply.result = MQ_RESULT_ACCEPTED;
                queues->sendToControl(&reply);
                break;
            }

            case MQ_COMMAND_STOP:
                isTaskRunning = false;
                break;

            case MQ_COMMAND_PROGRESS: {
                if (!isUpdating) {
                    FW_LOGE("Service is not being updated.");
                    reply.result = MQ_RESULT_NOT_RUNNING;
                    reply.value = 0;
                    queues->sendToControl(&reply);
                    break;
                }
                timespec now{};
                clock_gettime(CLOCK_MONOTONIC, &now);
                const int elapsedSeconds = secondsBetween(startTime, now);
                const int timePercent = percentOf(elapsedSeconds, expectedTime);
                const int status = loadProgress(progress);
                FW_LOGI("time : %d sec percent : %d progress_status : %d\n", elapsedSeconds,
                        timePercent, status);
                if (status >= kProgressDone) {
                    reply.value = status;
                    storeProgress(progress, 0);
                    isUpdating = false;
                    reply.result = MQ_RESULT_DONE;
                } else if (status < 0) {
                    reply.value = timePercent;
                    isUpdating = false;
                    storeProgress(progress, 0);
                    reply.result = MQ_RESULT_FAILED;
                } else {
                    reply.value = timePercent;
                    reply.result = MQ_RESULT_RUNNING;
                }
                queues->sendToControl(&reply);
                break;
            }

            case MQ_COMMAND_TIME:
                if (haveKey()) {
                    reply.result = manager->getFirmwareUpdateTime(dec_key, iamge_path, reply.value);
                } else {
                    FW_LOGE("decrption key is invalid");
                    reply.result = MQ_RESULT_REFUSED;
                }
                queues->sendToControl(&reply);
                break;

            case MQ_COMMAND_PATH:
                storeImagePath(request);
                reply.result = MQ_RESULT_ACCEPTED;
                queues->sendToControl(&reply);
                break;

            default:
                FW_LOGD("default\n");
                break;
        }
    }

    FW_LOGE("firmware_control_task thread stop\n");
    updateFuture = {};  // waits for an update that is still running
    return 0;
}

namespace {

/// From the first line of main to a served control channel.
/// @return false when the queues or the registry cannot be had; no task runs then.
bool service_start(std::future<int>& mainTask, std::future<int>& controlTask,
                   quillon::RunRecord& record)
{
    if (ss_read_and_use_securestorage_code() == -1) {
        ss_read_and_use_securestorage_code();  // the package may just have brought the key
    }

    int polls = kLabellingPolls;
    while (access(quillon::paths::kLabellingReady, F_OK) != 0 && polls > 0) {
        usleep(kPollPause);
        --polls;
    }
    FW_LOGD("smack_early_ready done\n");

    if (!FWUpdateMQManager::getInstance()->setMQName("usb") ||
        !FWUpdateMQManager::getInstance()->getIsReady(true) ||
        !FWUpdateSymbolManager::getInstance()->getIsReady(true)) {
        return false;
    }
    mainTask = std::async(firmware_main_task);
    controlTask = std::async(firmware_control_task);
    record.serving(haveKey());

    if (set_service_running_done() == 0) {
        FW_LOGI("set_service_running_done Done");
    }
    return true;
}

}  // namespace

int main()
{
    std::future<int> mainTask;
    std::future<int> controlTask;
    // Never destroyed: a thread of a plug-in may outlive all tasks.
    static auto& record = *new quillon::RunRecord(quillon::paths::kRunRecords);
    if (record.isKept()) {
        quillon::moduleObserver = &record;
    }
    if (!service_start(mainTask, controlTask, record)) {
        return -1;
    }

    try {
        controlTask.get();
    } catch (const std::exception& error) {
        FW_LOGE("Error: control_task exception %s", error.what());
    }
    try {
        mainTask.get();
    } catch (const std::exception& error) {
        FW_LOGE("Error: main_task exception %s", error.what());
    }

    static_cast<void>(std::remove(quillon::paths::kLifeMarker));
    smart_deadlock_unregister_watchdog_service();
    return 0;
}
