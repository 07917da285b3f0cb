// Compares two trees: names, types and file contents.
#pragma once

#include <string>
#include <vector>

#include "target.h"

namespace difftest {

// The marker files a volume shows in each folder.
bool is_marker(const std::string& name);

// The names of a folder listing, sorted; markers are left out when asked.
std::vector<std::string> sorted_names(const Outcome& listing, bool drop_markers);

// Compares the tree at `path` of a with the one of b, markers of a ignored
// (a may be a volume); returns the differences, at most `limit`.
std::vector<std::string> compare_trees(Target& a, Target& b, const std::string& path,
                                       size_t limit = 20);

}  // namespace difftest
