#pragma once

#include <string>
#include <vector>

/// Stands in front of the machine's journal in every program that it is linked into: the platform
/// library finds no journal, whatever the machine has, until a test sets `present`.
struct FakeJournal
{
    bool present = false;
    int lookedFor = 0;  ///< how often
    int result = 0;     ///< what the journal answers; below 0 it refuses
    std::vector<std::vector<std::string>> messages;  ///< the fields of each message that it took
};

FakeJournal& fakeJournal();
