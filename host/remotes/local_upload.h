// Storing a file in the remote folder from a cache source so that no reader
// ever sees a partial file: the data goes into a hidden temporary file
// (kTemporaryPrefix followed by random letters) in the target folder, is
// flushed to disk, and the temporary file is renamed over the target in one
// step. On any failure the target is left as it was and the temporary file
// is removed.
#ifndef SKARVO_REMOTES_LOCAL_UPLOAD_H_
#define SKARVO_REMOTES_LOCAL_UPLOAD_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>

#include "libfilesystem/cache.h"
#include "libfilesystem/handle.h"
#include "libfilesystem/protocol.h"
#include "remotes/local_errors.h"

struct LocalUpload {
    int dirfd = -1;    // the target folder
    std::string name;  // the target's name in it
    std::string key;   // the target's key, for texts
    ICacheIO* source = nullptr;
    std::shared_ptr<_FS_HANDLE> handle;  // passed on with every read
    int64_t size = 0;                    // bytes to read from offset 0, or UPLOAD_SIZE_UNKNOWN
    const _TRANSFERPROGRESS* progress = nullptr;
    // Called just before the rename that makes the file visible; a failure
    // stops the upload there.
    std::function<Status()> beforeRename;
    // Held shared around that call and the rename, when set: whoever renames
    // folders of the remote holds it exclusively, so that what the call
    // checks of the folder still holds at the rename.
    std::shared_mutex* renames = nullptr;
};

// The target may be missing or a regular file, whose permission bits the new
// file takes over. A folder there is ALREADY_EXISTS, anything else
// ACCESS_DENIED. A source that fails gives its code; one that ends before
// `size` bytes gives FILE_READ_FAILED. The upload is not cancelled when the
// handle closes: uploads normally run after the file was closed.
Status StoreAtomically(const LocalUpload& upload);

#endif  // SKARVO_REMOTES_LOCAL_UPLOAD_H_
