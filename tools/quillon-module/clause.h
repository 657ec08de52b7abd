/// What a module promises, clause by clause.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace quillon::kit {

enum class Verdict : int { kNone, kKept, kBroken, kNotOffered, kNotChecked };

/// @return "kept", "broken", "not offered" or "not checked"
const char* wordOf(Verdict verdict);

/// What has become of a clause. A clause that cannot go on throws one.
struct Judgement
{
    Verdict verdict = Verdict::kKept;
    std::string text;  ///< one line: what is wrong, or worth knowing; may be empty
};

[[noreturn]] inline void broken(const std::string& text)
{
    throw Judgement{Verdict::kBroken, text};
}

inline void require(bool holds, const std::string& otherwise)
{
    if (!holds) {
        broken(otherwise);
    }
}

[[noreturn]] inline void notOffered(const std::string& text)
{
    throw Judgement{Verdict::kNotOffered, text};
}

[[noreturn]] inline void notChecked(const std::string& text)
{
    throw Judgement{Verdict::kNotChecked, text};
}

/// The module that is looked at.
struct Subject
{
    std::string file;                          ///< an absolute path
    std::string image;                         ///< the payload to install; empty: install nothing
    std::string info;                          ///< its information file; may be empty
    std::vector<std::string> others;           ///< the other modules of the device
    std::chrono::milliseconds longest{10000};  ///< for one answer

    /// The library name: the file's name without ".so".
    std::string name() const;
    /// A process module has "EXT-" in its name, in any case.
    bool isProcess() const;
};

class Module;

/// What a clause needs so that it can be judged, as bits.
enum Need : unsigned {
    kNothing = 0,
    kFirmware = 1,   ///< a firmware module
    kInfo = 2,       ///< --info
    kImage = 4,      ///< --image; the clause installs it
    kStick = 8,      ///< doUpdate_decryption
    kTime = 16,      ///< getExpectedTime
    kProgress = 32,  ///< getUpdateProgress
    kGate = 64       ///< when it is broken, none but gates can be judged
};

struct Clause
{
    const char* name;      ///< for --filter, programs and scripts: stable
    int level;             ///< 1: the service needs it, to 5: a maker should want it
    const char* sentence;  ///< what the module does when it keeps the clause
    unsigned needs;
    /// @return what is worth knowing when the clause is kept; may be empty. Throws Judgement.
    std::string (*hold)(Module& module);
};

/// All of them, gates first.
const std::vector<Clause>& allClauses();
/// @return null when there is none of that name
const Clause* findClause(const std::string& name);

/// Judges a clause in this process, which the module may end, keep or spoil.
Judgement judge(const Clause& clause, Module& module);

}  // namespace quillon::kit
