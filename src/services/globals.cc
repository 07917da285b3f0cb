// The process-wide state that the library shares with its host.
#include <atomic>
#include <mutex>
#include <string>

#include "libfilesystem/entry_points.h"

extern "C" {

LIBFS_API ILog* logger = nullptr;
LIBFS_API ILog* ajlogger = nullptr;
LIBFS_API IAsyncQ* aq = nullptr;
LIBFS_API ICacheService* cache = nullptr;
LIBFS_API std::string productname;
LIBFS_API std::atomic<uint64_t> gn{0};
LIBFS_API std::mutex ml;
LIBFS_API std::mutex ll;
LIBFS_API std::mutex cl;
LIBFS_API std::mutex aql;

}  // extern "C"
