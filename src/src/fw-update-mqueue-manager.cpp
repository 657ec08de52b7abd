#include "fw-update-mqueue-manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "support/log.h"

namespace {

constexpr mode_t kQueueMode = 0666;

constexpr const char* kLabelAttribute = "security.SMACK64";
constexpr const char kLabel[] = "User::App::Shared";

// The umask cuts the mode that mq_open is given, but every client on the device may use the queues.
void allowEveryone(mqd_t queue)
{
    static_cast<void>(fchmod(queue, kQueueMode));
}

}  // namespace

FWUpdateMQManager* FWUpdateMQManager::getInstance()
{
    static FWUpdateMQManager instance;
    return &instance;
}

FWUpdateMQManager::~FWUpdateMQManager()
{
    onDestroy();
}

bool FWUpdateMQManager::setMQName(const char* suffix)
{
    if (suffix[0] == '\0') {
        FW_LOGE("Error: mqName is empty");
        return false;
    }
    controlName_ = std::string("/fwupdatecontrol") + "_" + suffix;
    serviceName_ = std::string("/fwupdateservice") + "_" + suffix;
    return true;
}

bool FWUpdateMQManager::getIsReady(bool isOwner)
{
    isOwner_ = isOwner;
    if (isReady_) {
        return isReady_;
    }
    isReady_ = onCreate(isOwner);
    return isReady_;
}

bool FWUpdateMQManager::onCreate(bool isOwner)
{
    creator_ = getpid();
    mq_attr attributes{};
    attributes.mq_flags = 0;
    attributes.mq_maxmsg = FW_MQ_MAX_MESSAGES;
    attributes.mq_msgsize = sizeof(MQData);
    attributes.mq_curmsgs = 0;

    if (!isOwner) {
        serviceQueue_ = mq_open(serviceName_.c_str(), O_WRONLY);
        if (serviceQueue_ == -1) {
            return false;
        }
        controlQueue_ = mq_open(controlName_.c_str(), O_RDONLY);
        return controlQueue_ != -1;
    }

    serviceQueue_ = mq_open(serviceName_.c_str(), O_RDWR | O_CREAT, kQueueMode, &attributes);
    if (serviceQueue_ == -1) {
        return false;
    }
    allowEveryone(serviceQueue_);
    setSmackAccess(serviceName_);

    controlQueue_ = mq_open(controlName_.c_str(), O_RDWR | O_CREAT, kQueueMode, &attributes);
    if (controlQueue_ == -1) {
        return false;
    }
    allowEveryone(controlQueue_);
    setSmackAccess(controlName_);
    return true;
}

bool FWUpdateMQManager::setSmackAccess(const std::string& name)
{
    const std::string path = "/dev/mqueue" + name;
    // The label is stored with its terminating NUL, as the text that it is in C.
    if (setxattr(path.c_str(), kLabelAttribute, kLabel, sizeof(kLabel), 0) != 0) {
        FW_LOGE("Error: setSmackAccess Fail file [%s] label [%s]", path.c_str(), kLabel);
        return false;
    }
    return true;
}

int FWUpdateMQManager::receiveFormControl(MQData* record)
{
    return receive(serviceQueue_, record);
}

int FWUpdateMQManager::receiveFormService(MQData* record)
{
    return receive(controlQueue_, record);
}

int FWUpdateMQManager::receive(mqd_t queue, MQData* record)
{
    return static_cast<int>(
        mq_receive(queue, reinterpret_cast<char*>(record), sizeof(MQData), nullptr));
}

int FWUpdateMQManager::sendToControl(MQData* record)
{
    return send(controlQueue_, record);
}

int FWUpdateMQManager::sendToService(MQData* record)
{
    return send(serviceQueue_, record);
}

int FWUpdateMQManager::send(mqd_t queue, MQData* record)
{
    return mq_send(queue, reinterpret_cast<const char*>(record), sizeof(MQData), 0);
}

bool FWUpdateMQManager::onDestroy()
{
    // A child that a plug-in forked off and that calls exit() comes here as well: the queues are
    // its parent's.
    const bool mayRemove = isOwner_ && creator_ == getpid();
    // The descriptors keep their values: a manager is destroyed once, at process exit.
    if (serviceQueue_ != -1) {
        static_cast<void>(mq_close(serviceQueue_));
        if (mayRemove) {
            static_cast<void>(mq_unlink(serviceName_.c_str()));
        }
    }
    if (controlQueue_ != -1) {
        static_cast<void>(mq_close(controlQueue_));
        if (mayRemove) {
            static_cast<void>(mq_unlink(controlName_.c_str()));
        }
    }
    return true;
}
