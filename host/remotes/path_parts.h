// The names of a "/"-separated path.
#ifndef SKARVO_REMOTES_PATH_PARTS_H_
#define SKARVO_REMOTES_PATH_PARTS_H_

#include <string>
#include <vector>

// Splits "a/b//c" (or "/a/b/c/") into its non-empty parts.
std::vector<std::string> SplitPath(const std::string& path);

#endif  // SKARVO_REMOTES_PATH_PARTS_H_
