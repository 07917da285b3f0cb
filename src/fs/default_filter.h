// The file filter every file system starts with.
#ifndef LIBFS_FS_DEFAULT_FILTER_H_
#define LIBFS_FS_DEFAULT_FILTER_H_

#include <deque>
#include <string>
#include <unordered_map>

#include "libfilesystem/filter.h"

// Keeps ".DS_Store" files local for every process. On a mount with
// real-time upload every process is a real-time uploader; without it none
// is. A host that wants a narrower list sets a filter of its own.
class DefaultFilter : public IFSFilter {
  public:
    explicit DefaultFilter(bool realtime);

    bool IsOfflineOnly(const char* processName, const char* fileName) override;
    bool IsRealtimeUploadProcess(const char* processName) noexcept override;

  private:
    // Process-name pattern -> file-name patterns kept local for it.
    std::unordered_map<std::string, std::deque<std::string>> offlineOnly_;
    bool realtime_;
    const std::string anyProcess_ = "*";
};

#endif  // LIBFS_FS_DEFAULT_FILTER_H_
