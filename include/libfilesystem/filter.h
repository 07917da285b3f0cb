// File filters: which names stay local, and which processes upload in real
// time.
#ifndef LIBFILESYSTEM_FILTER_H_
#define LIBFILESYSTEM_FILTER_H_

// Set on a file system with IFileSystem_V2::SetFSFilter, held by shared
// pointer. Every file system starts with a default filter that keeps
// ".DS_Store" files local for every process.
//   0  Release()
//        Destroys the filter (delete this).
//   1  IsOfflineOnly(processName, fileName) -> bool
//        True when `fileName`, touched by `processName`, must stay local and
//        never be sent to the remote.
//   2  IsRealtimeUploadProcess(processName) -> bool
//        True when the writes of `processName` are uploaded while they happen
//        (only on mounts with real-time upload). Must not throw.
//   3, 4  destructors.
class IFSFilter {
  public:
    virtual void Release() { delete this; }
    virtual bool IsOfflineOnly(const char* processName, const char* fileName) = 0;
    virtual bool IsRealtimeUploadProcess(const char* processName) noexcept = 0;
    virtual ~IFSFilter() = default;
};

#endif  // LIBFILESYSTEM_FILTER_H_
