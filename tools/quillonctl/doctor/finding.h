/// What doctor finds.
#pragma once

#include <string>
#include <vector>

namespace quillon::doctor {

enum class Severity {
    kNote,     ///< worth knowing, or could not be checked
    kWarning,  ///< something may fail
    kError     ///< updates will fail, or are unsafe
};

struct Finding
{
    Severity severity;
    const char* code;    ///< stable; docs/troubleshooting.md lists all
    std::string text;    ///< one line
    std::string remedy;  ///< one line, for people; a command where there is one
};

using Findings = std::vector<Finding>;

inline void append(Findings& findings, const Findings& more)
{
    findings.insert(findings.end(), more.begin(), more.end());
}

inline Finding error(const char* code, const std::string& text, const std::string& remedy)
{
    return {Severity::kError, code, text, remedy};
}

inline Finding warning(const char* code, const std::string& text, const std::string& remedy)
{
    return {Severity::kWarning, code, text, remedy};
}

inline Finding note(const char* code, const std::string& text, const std::string& remedy)
{
    return {Severity::kNote, code, text, remedy};
}

/// Notes what this user cannot look at.
/// @param what  the beginning of a sentence: "the image key"
inline Finding notChecked(const std::string& what)
{
    return note("not-checked", "not checked: " + what + ": needs root",
                "run as root: quillonctl doctor");
}

}  // namespace quillon::doctor
