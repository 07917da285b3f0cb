// Modification times that the volume set on files and the server cannot
// store (a WebDAV server keeps getlastmodified itself).
//
// A time set for a file is remembered with the file's current ETag and shown
// in its records for as long as the server reports that same ETag: a change
// by anyone else gives the file a new ETag, and then the server's time shows
// again. Without this, a file would show its upload time right after a
// program set its time (tar, rsync, cp -p), and such programs would see the
// file change under them. Remembered for this run only; moves take the times
// along. Bounded to kMaxFiles files. Thread safe.
#ifndef SKARVO_REMOTES_WEBDAV_KEPT_TIMES_H_
#define SKARVO_REMOTES_WEBDAV_KEPT_TIMES_H_

#include <map>
#include <mutex>
#include <string>

#include "libfilesystem/file_record.h"

class KeptTimes {
  public:
    static constexpr size_t kMaxFiles = 16384;

    void Set(const std::string& key, const std::string& etag, const std::string& modifyTime);
    // Puts the kept time into the record of `key` when its `extra` (ETag)
    // is the one the time was set for.
    void Apply(const std::string& key, _FS_FILE_V2* record);
    // `from` and everything below it now is at `to`.
    void Moved(const std::string& from, const std::string& to);
    void Removed(const std::string& key);

  private:
    struct Kept {
        std::string etag;
        std::string modifyTime;
    };
    std::mutex mutex_;
    std::map<std::string, Kept> kept_;
};

#endif  // SKARVO_REMOTES_WEBDAV_KEPT_TIMES_H_
