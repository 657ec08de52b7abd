#pragma once

#include <sys/types.h>

#include <string>

/// A system bus of the test's own, named in DBUS_SYSTEM_BUS_ADDRESS while it lives.
class SystemBus
{
public:
    /// @return false on a machine that has no dbus-daemon
    static bool canStart();

    SystemBus();
    ~SystemBus();
    SystemBus(const SystemBus&) = delete;
    SystemBus& operator=(const SystemBus&) = delete;

private:
    std::string directory_;
    pid_t daemon_ = -1;
};
