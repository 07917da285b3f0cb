// Open flags as text, for log lines.
#ifndef LIBFS_FS_OPEN_FLAGS_H_
#define LIBFS_FS_OPEN_FLAGS_H_

#include <string>

// "O_RDONLY" followed by ", NAME" for each known flag set in `flags`, in a
// fixed order; flags without a name are not shown. "O_RDONLY" is always
// written first, also for a write open.
std::string OpenFlagsText(int flags);

#endif  // LIBFS_FS_OPEN_FLAGS_H_
