// The errno a volume operation answers for a result.
#ifndef LIBFS_FS_ERRNO_FOR_H_
#define LIBFS_FS_ERRNO_FOR_H_

#include <cstdint>

#include "libfilesystem/aerror.h"

// The longest name one folder entry may have, in bytes.
constexpr unsigned kMaxNameLength = 255;

// The largest file the volume keeps: 1 TiB. Every byte of a file passes
// through the local cache and is uploaded, so a length typed by mistake
// (truncate -s 999999999999999) must not start a transfer that never ends;
// larger lengths are refused with EFBIG, as a local disk refuses lengths past
// its own limit.
constexpr int64_t kMaxFileSize = int64_t{1} << 40;

// The negative errno for `code`. Refusals that POSIX programs act on get
// their own errno (ENOENT, EEXIST, ENOTEMPTY, ENOTDIR, EPERM, ENOSPC,
// ETIMEDOUT, ...); everything else falls back on ConvertAERROR, which keeps
// EIO for real I/O failures.
int ErrnoFor(AERROR code);

#endif  // LIBFS_FS_ERRNO_FOR_H_
