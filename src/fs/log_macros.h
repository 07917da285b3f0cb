// The request line every volume operation logs first.
#ifndef LIBFS_FS_LOG_MACROS_H_
#define LIBFS_FS_LOG_MACROS_H_

#include "services/log.h"

// "[FILESYSTEM] [letter:process] " followed by `format`; used inside
// FileSystem members that have a `process` argument.
#define LOG_REQUEST(format, ...)                                                         \
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] [%s:%s] " format, letter_.c_str(), \
             process.c_str(), __VA_ARGS__)

#endif  // LIBFS_FS_LOG_MACROS_H_
