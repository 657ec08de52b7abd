/// The service's records, for a quillonctl beside a scripted service.
#pragma once

#include <string>

#include "support/files.h"

inline constexpr const char* kStick = "/tmp/stick";
// After any command.
inline constexpr const char* kBegan =
    "{\"event\":\"began\",\"clock\":1e9,\"directory\":\"/tmp/stick/\"}\n";
inline constexpr const char* kEnded = "{\"event\":\"ended\",\"clock\":1e9,\"result\":0}\n";

/// @param name  "estimate" for instance
inline void record(const std::string& name, const std::string& lines)
{
    quillon::test::writeFile("/run/quillon/run/" + name + ".jsonl", lines);
}

/// Two lines of a record, 12 s apart.
/// @param members  of the second one
inline std::string recorded(const std::string& before, const std::string& after,
                            const std::string& module, const std::string& members)
{
    return "{\"event\":\"" + before + "\",\"clock\":1000000100,\"module\":\"" + module +
           "\"}\n{\"event\":\"" + after + "\",\"clock\":1000000112,\"module\":\"" + module + "\"," +
           members + "}\n";
}

inline std::string decided(const std::string& module, const std::string& members)
{
    return recorded("checking", "decided", module, members);
}

inline std::string finished(const std::string& module, const std::string& members)
{
    return recorded("started", "finished", module, members);
}
