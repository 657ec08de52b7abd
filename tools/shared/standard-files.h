#pragma once

namespace quillon {

/// Standard input, output and error as the program found them.

/// To be called first. A file that was closed gets its number taken, so that no other file can be
/// written to in its stead; writing to a standard output that was closed goes on failing. A reader
/// of standard output that has gone is an error like any other, and ends nothing.
void prepareStandardFiles();

/// To be called last: whether everything has arrived on standard output.
/// @param program     its name, which begins the line on standard error when something was lost
/// @param code        what the program would exit with
/// @param codeOfLoss  returned when something was lost
int closeOutput(const char* program, int code, int codeOfLoss);

}  // namespace quillon
