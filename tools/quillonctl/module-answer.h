/// What modules themselves say.
#pragma once

#include <functional>
#include <map>
#include <string>

namespace quillon {

struct ModuleAnswer
{
    std::string running;  ///< version; empty when not known
    std::string problem;  ///< a word for programs, as "crashed"; empty: none
    std::string reason;   ///< what is wrong with the module or its answer, a phrase
};

/// By the module's name.
using ModuleAnswers = std::map<std::string, ModuleAnswer>;

/// Asks all modules of the device, unless a control layer is updating. Throws Failure.
using AskModules = std::function<ModuleAnswers()>;

/// What the modules have said before and after an update.
struct AnswersAround
{
    ModuleAnswers before;
    ModuleAnswers after;
};

}  // namespace quillon
