// The file filter every file system starts with.
#ifndef LIBFS_FS_DEFAULT_FILTER_H_
#define LIBFS_FS_DEFAULT_FILTER_H_

#include <deque>
#include <string>
#include <unordered_map>

#include "libfilesystem/filter.h"

// Keeps ".DS_Store" files local for every process, and names no process as
// a real-time uploader. A host that wants more sets a filter of its own.
class DefaultFilter : public IFSFilter {
  public:
    explicit DefaultFilter(bool realtime);

    bool IsOfflineOnly(const char* processName, const char* fileName) override;
    bool IsRealtimeUploadProcess(const char* processName) noexcept override;

  private:
    // Process-name pattern -> file-name patterns kept local for it.
    std::unordered_map<std::string, std::deque<std::string>> offlineOnly_;
    std::deque<std::string> realtimeProcesses_;
    bool realtime_;
    const std::string anyProcess_ = "*";
};

#endif  // LIBFS_FS_DEFAULT_FILTER_H_
