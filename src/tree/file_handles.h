// Open files: the library's handle record and each node's table of them.
#ifndef LIBFS_TREE_FILE_HANDLES_H_
#define LIBFS_TREE_FILE_HANDLES_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "foundation/lazy_part.h"
#include "libfilesystem/handle.h"

class File;

// The library's record of one open file. The part that hosts see is
// _FS_HANDLE; this adds what only the library uses.
struct _FS_HANDLE_EXT : _FS_HANDLE {
    std::shared_ptr<File> file;
    uint32_t originKind = 1;  // 2 when the open carried an origin text
    std::string originText;
    std::string process;  // name of the process that opened the file
    std::string path;     // canonical path of the node when it was opened
    uint64_t flags = 0;   // the open flags, unchanged
};

// A node's table of open handles, keyed by the address of each record.
class FileHandles {
  public:
    std::shared_ptr<_FS_HANDLE_EXT> OpenHandleRead(std::shared_ptr<File> file);
    std::shared_ptr<_FS_HANDLE_EXT> OpenHandleWrite(std::shared_ptr<File> file);
    // A fresh record owned by the caller, not entered in the table.
    static _FS_HANDLE_EXT* NewHandle();
    // Copies what names the open a record belongs to: its context, number,
    // node, process, path and flags.
    static void CopyOwner(_FS_HANDLE_EXT& to, const _FS_HANDLE_EXT& from);
    // A copy of `source` that is open again. The table stores it under the
    // copy's address but with `source` as the value, so closing the copy's
    // key closes (and uncounts) the source record.
    std::shared_ptr<_FS_HANDLE_EXT> DupHandle(std::shared_ptr<_FS_HANDLE_EXT> source);
    std::shared_ptr<_FS_HANDLE_EXT> GetHandle(void* key);
    // Marks the record closed and removes it; false for an unknown key.
    bool CloseHandle(void* key);
    void CloseAllHandles();
    bool ExistWriteHandle() const { return writeCount_.load() != 0; }
    uint64_t WriteCount() const { return writeCount_.load(); }
    // Records whose process name differs from `process`.
    int CountExcept(const std::string& process);
    bool HasAnyOpened();

  private:
    std::shared_ptr<_FS_HANDLE_EXT> Open(std::shared_ptr<File> file, uint32_t mode);

    // The records, made at the node's first open: most nodes are never
    // opened.
    struct Table {
        std::mutex lock;
        std::unordered_map<void*, std::shared_ptr<_FS_HANDLE_EXT>> handles;  // guarded by lock
    };

    LazyPart<Table> table_;
    std::atomic<uint64_t> writeCount_{0};
};

#endif  // LIBFS_TREE_FILE_HANDLES_H_
