#pragma once

#include <functional>
#include <string>
#include <utility>

#include "fakes/module-behaviour.h"

namespace quillon::test {

/// A firmware module of the device under test, described in words. It is up to date, takes ten
/// seconds and has every entry until something else is said.
class Module
{
public:
    Module& needsUpdate() { return needs(1); }
    Module& upToDate() { return needs(0); }
    Module& needs(int value)
    {
        behaviour_.need = value;
        return *this;
    }
    Module& leavesNeedAlone()
    {
        behaviour_.need.reset();
        return *this;
    }
    Module& takesSeconds(int seconds)
    {
        behaviour_.expectedSeconds = seconds;
        return *this;
    }
    Module& leavesSecondsAlone()
    {
        behaviour_.expectedSeconds.reset();
        return *this;
    }
    Module& withEmpid(const std::string& text)
    {
        behaviour_.empid = text;
        hasEmpid_ = true;
        return *this;
    }
    Module& running(const std::string& version)
    {
        behaviour_.activeVersion = version;
        return *this;
    }
    Module& leavesVersionAlone()
    {
        behaviour_.activeVersion.reset();
        return *this;
    }
    Module& atProgress(unsigned int progress)
    {
        behaviour_.progress = progress;
        return *this;
    }

    /// What an entry returns, with errno when it is not 0.
    Module& returning(const std::string& entry, int result, int error = 0)
    {
        behaviour_.entries[entry].result = result;
        behaviour_.entries[entry].error = error;
        return *this;
    }
    Module& taking(const std::string& entry, int milliseconds)
    {
        behaviour_.entries[entry].delayMs = milliseconds;
        return *this;
    }
    Module& with(const std::string& entry, fakes::Effect effect)
    {
        behaviour_.entries[entry].effect = effect;
        return *this;
    }
    Module& throwing(const std::string& entry) { return with(entry, fakes::Effect::Throw); }
    Module& onCheckVersion(std::function<int(const char*, int*)> function)
    {
        behaviour_.onCheckVersion = std::move(function);
        return *this;
    }
    Module& onSetContext(std::function<void(const char*, char*)> function)
    {
        behaviour_.onSetContext = std::move(function);
        return *this;
    }
    Module& onAllUpdateDone(std::function<void()> function)
    {
        behaviour_.onAllUpdateDone = std::move(function);
        return *this;
    }
    Module& onUpdate(std::function<void(const char*, unsigned long)> function)
    {
        behaviour_.onUpdate = std::move(function);
        return *this;
    }
    Module& onPayload(std::function<void(const unsigned char*, int)> function)
    {
        behaviour_.onPayload = std::move(function);
        return *this;
    }

    /// Without one entry; "optional" means all four that a module may lack.
    Module& lacking(const std::string& entry)
    {
        library_ = "without-" + entry;
        return *this;
    }
    /// With that entry at the address null: "checkVersion" or "getExpectedTime".
    Module& withNull(const std::string& entry)
    {
        library_ = "null-" + entry;
        return *this;
    }
    /// Forks a child that returns while it is loaded, and another one while it is unloaded.
    Module& forkingAtLoad()
    {
        library_ = "forks-at-load";
        return *this;
    }

    const std::string& library() const { return library_; }
    const fakes::ModuleBehaviour& behaviour() const { return behaviour_; }
    bool hasEmpid() const { return hasEmpid_; }

private:
    std::string library_ = "full";
    fakes::ModuleBehaviour behaviour_;
    bool hasEmpid_ = false;
};

}  // namespace quillon::test
