#pragma once

#include <mqueue.h>

#include <string>

#include "fw-update-mqdata.h"

/// The pair of POSIX message queues between the service and a control client.
///
/// In the names of the operations "control" stands for the client and "service" for the service's
/// process. The service opens the queues as their owner, a client as a user. One record is 284
/// bytes at priority 0. Thread: names and queues are set up by one thread; sending and receiving
/// may then come from any.
class FWUpdateMQManager
{
public:
    /// The one instance, made on first use; it closes the queues at process exit.
    static FWUpdateMQManager* getInstance();

    /// Names the queues "/fwupdatecontrol_<suffix>" and "/fwupdateservice_<suffix>".
    /// @param suffix  NUL-terminated, not null
    /// @return false (logged) when the suffix is empty; the names are then unchanged.
    bool setMQName(const char* suffix);

    /// Opens the queues unless that has been done.
    /// @return true when they are open. A failed attempt is made again on the next call.
    bool getIsReady(bool isOwner);

    /// Opens both queues; the owner makes and labels them and lets everyone use them.
    /// @return false when a queue cannot be opened, without a message; one that was opened before
    ///         stays open.
    bool onCreate(bool isOwner);

    /// Labels a queue's file for the security module.
    /// @param name  the queue's name with its leading "/"
    /// @return false (logged) when the label cannot be set.
    bool setSmackAccess(const std::string& name);

    /// Waits for the next record into the service ("from control").
    /// @return bytes received, or -1 with errno.
    int receiveFormControl(MQData* record);

    /// Waits for the next record out of the service ("from service").
    /// @return bytes received, or -1 with errno.
    int receiveFormService(MQData* record);

    /// Waits for the next record of any queue.
    /// @return bytes received, or -1 with errno.
    int receive(mqd_t queue, MQData* record);

    /// Sends a record out of the service; waits while the queue is full.
    /// @return 0, or -1 with errno.
    int sendToControl(MQData* record);

    /// Sends a record into the service; waits while the queue is full.
    /// @return 0, or -1 with errno.
    int sendToService(MQData* record);

    /// Sends a record into any queue; waits while the queue is full.
    /// @return 0, or -1 with errno.
    int send(mqd_t queue, MQData* record);

    /// Closes the queues; the owner removes their names as well, but not in a child that was forked
    /// off after they were opened.
    /// @return true, always.
    bool onDestroy();

    FWUpdateMQManager(const FWUpdateMQManager&) = delete;
    FWUpdateMQManager& operator=(const FWUpdateMQManager&) = delete;

private:
    FWUpdateMQManager() = default;
    ~FWUpdateMQManager();

    bool isReady_ = false;
    bool isOwner_ = false;
    std::string controlName_;
    std::string serviceName_;
    mqd_t serviceQueue_ = -1;
    mqd_t controlQueue_ = -1;
    pid_t creator_ = 0;  ///< process that opened them
};
