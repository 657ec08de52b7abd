/// What the real quillonctl knows, by its own help, and pages about it.
#pragma once

#include <set>
#include <string>
#include <vector>

using Words = std::set<std::string>;

/// @return every match of the expression's only group; "^" matches at the beginning of each line
Words allMatches(const std::string& text, const char* expression);

/// @return what stands between the first text and the next last one; empty without a first one
std::string between(const std::string& text, const std::string& first, const std::string& last);

/// The verbs of the program, or those of one of its verbs.
/// @param verb  empty: the program's
Words verbsOf(std::vector<std::string> verb);

/// docs/man/quillonctl.1
std::string manualPage();
