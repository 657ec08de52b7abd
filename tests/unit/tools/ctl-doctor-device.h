/// A device on which doctor finds nothing, for tests to make faults on.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "base/fd.h"
#include "support/process.h"
#include "unit/tools/ctl-program.h"

/// Base of doctor's tests. They are skipped where "/" is not root's, as in a user namespace: then
/// nothing can be trusted.
class RootsMachine : public testing::Test
{
protected:
    void SetUp() override;
};

/// What "quillonctl --json doctor" has written, an object a line.
std::vector<Json::Value> findingsOf(const CtlResult& result);

/// @return the finding with that code; null when there is none
Json::Value findingIn(const std::vector<Json::Value>& findings, const std::string& code);

/// Puts a record of the service's in place.
/// @param lines  behind "began", which is made here
/// @param process  0: one that is gone
void putRecord(const std::string& name, pid_t process, const std::string& lines);

/// Makes a queue anew.
void putQueue(const char* name, mode_t mode = 0666, long places = 10, long size = 0);

/// Puts a record without a command or a result into a queue.
void sendTo(const char* name);

/// Whom nothing on the device belongs to, and who has no name on the host either.
constexpr uid_t kStranger = 61234;

/// Whom a device gives its service to; without a name as well.
constexpr uid_t kItsUser = 61990;

/// A process that has this name and does nothing.
class NamedProcess
{
public:
    /// @param name  15 characters at most are seen
    /// @param user  whom it runs as; taken by root alone
    explicit NamedProcess(const std::string& name, uid_t user = 0);
    ~NamedProcess();
    NamedProcess(const NamedProcess&) = delete;
    NamedProcess& operator=(const NamedProcess&) = delete;

    pid_t id() const { return id_; }

private:
    std::string program_;
    pid_t id_ = -1;
};

/// The service runs: a process of its name does, with its markers, queues and records. The keys are
/// maker "a"'s, the module is a test plug-in "lamp", and somebody listens at the mounting helper's
/// socket. The service's user is root.
class DoctorsDevice
{
public:
    DoctorsDevice();
    DoctorsDevice(const DoctorsDevice&) = delete;
    DoctorsDevice& operator=(const DoctorsDevice&) = delete;

    pid_t service() const { return service_->id(); }
    void endService() { service_.reset(); }
    /// From now on the service's user is another one. @return false where there is only one user
    static bool giveServiceToItsUser();
    void stopListening() { listener_.reset(); }

private:
    std::optional<NamedProcess> service_;
    quillon::UniqueFd listener_;
};
