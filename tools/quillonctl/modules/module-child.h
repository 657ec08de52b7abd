/// Work with the modules in a process of its own, where a broken one hurts only itself.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/quillonctl/modules/module-registry.h"
#include "tools/shared/deadline-child.h"

namespace quillon {

/// How long a module may take for one answer.
struct ModuleTimes
{
    /// Loading, and telling the version. A component on a slow bus answers within seconds.
    std::chrono::milliseconds query = std::chrono::seconds(10);
    /// A check reads the whole image before the plug-in is asked. The service gets as long for its
    /// estimate, which does the same.
    std::chrono::milliseconds check = std::chrono::seconds(600);
};

/// Thread: the process must have no other one, and have loaded no module.
class ModuleChild
{
public:
    using Row = std::vector<std::string>;
    using Rows = std::vector<Row>;

    explicit ModuleChild(const ModuleTimes& times) : times_(times) {}

    /// Does the work in a child. When a module crashes there, ends the process or does not answer
    /// in time, that child is over, and the work begins anew in another one, which does not load
    /// the module. Neither destructors nor exit handlers run in a child.
    ///
    /// A module's time does not run while the child waits for who mounts packages, who gets the
    /// time of a check. After that the work is given up.
    ///
    /// A request to end the program ends the child; it takes effect afterwards.
    /// @param columns  of every row that the work returns
    /// @param work     what it raises as a Failure is raised here
    /// @return what the work returns, each text cut to 20 KiB. Throws Failure, also for a request.
    Rows run(std::size_t columns, const std::function<Rows()>& work);

    /// Replaces what the work has found about a module that ended a child or did not answer: its
    /// problem is "crashed", "hung" or "ended".
    /// @param item  a ModuleEntry or ModuleCheck
    template <typename Item>
    void markBroken(Item& item) const
    {
        const auto fallen = fallen_.find(item.name);
        if (fallen != fallen_.end()) {
            item = {};
            item.name = fallen->first;
            item.reason = fallen->second.text;
            item.problem.code = fallen->second.code;
        }
    }
    /// Packages that may still be mounted, of children that were ended early.
    const std::set<std::string>& packages() const { return packages_; }
    /// Packages that any of the children may have mounted.
    const std::set<std::string>& mounted() const { return mounted_; }
    /// Who mounts has not answered.
    bool isHelperLost() const { return isHelperLost_; }

private:
    const ModuleTimes times_;
    std::map<std::string, ModuleProblem> fallen_;
    std::set<std::string> packages_;
    std::set<std::string> mounted_;
    bool isHelperLost_ = false;
};

/// Whether this process waits for who mounts packages. Thread: any.
bool isMounting();

/// What to do about a helper that does not answer.
std::string remedyForMountingHelper();

}  // namespace quillon
