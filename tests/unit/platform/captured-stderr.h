#pragma once

#include <string>
#include <vector>

/// Takes what the process writes to standard error, from construction to destruction.
class CapturedStderr
{
public:
    CapturedStderr();
    ~CapturedStderr();
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    /// All that was written until now.
    std::string text() const;
    /// The same by lines, without their newlines.
    std::vector<std::string> lines() const;
    /// Forgets what was written.
    void clear();

private:
    int file_;
    int original_;
};
