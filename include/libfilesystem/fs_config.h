// The ten timing values of a file system, all in milliseconds.
#ifndef LIBFILESYSTEM_FS_CONFIG_H_
#define LIBFILESYSTEM_FS_CONFIG_H_

#include <cstdint>

// The values are taken from the JSON text given to
// IFileSystem_V2::SetConfiguration; each field names its JSON path and
// default. Text that is not a number gives 0.
struct _FS_CONFIG {
    int64_t fstimeout;          // /fs/timeout (20000): time-out asked of the kernel
                                // while a long operation runs
    int64_t fetchasync;         // /fs/fetch/async (120000): age after which a
                                // listed folder is listed again, in the background
    int64_t fetchsync;          // /fs/fetch/sync (60000)
    int64_t readtimeout;        // /fs/read/timeout (10000): per 64 KiB read
    int64_t writetimeout;       // /fs/write/timeout (10000)
    int64_t timeout_reset;      // /fs/reset (10000): least time between two
                                // kernel time-out extensions
    int64_t fileinfo_interval;  // /fs/fileinfo (3000): least time between two
                                // checks of an opened file's remote record
    int64_t changes_interval;   // /fs/changes (5000): least time between two
                                // change polls of a protocol
    int64_t quota_interval;     // /fs/quota (5000): life of a cached quota
    int64_t callback_interval;  // /fs/callback (300): least time between two
                                // progress reports of an upload
};

// The source of a file system's timing values.
//   0  GetConfig() -> _FS_CONFIG    a copy of the current values
class IFSConfig {
  public:
    virtual _FS_CONFIG GetConfig() = 0;

  protected:
    ~IFSConfig() = default;
};

#endif  // LIBFILESYSTEM_FS_CONFIG_H_
