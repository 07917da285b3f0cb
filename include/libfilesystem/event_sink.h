// The host's event sink: failures the user should hear of, the questions the
// library must ask when an upload fails, and progress.
#ifndef LIBFILESYSTEM_EVENT_SINK_H_
#define LIBFILESYSTEM_EVENT_SINK_H_

#include "libfilesystem/aerror.h"

// Kinds of failed remote operations reported through IFSEvent::Error.
constexpr int FSEVENT_LIST_FAILED = 1;           // a folder listing
constexpr int FSEVENT_STORE_FAILED = 2;          // storing a new or written file
constexpr int FSEVENT_READ_FAILED = 3;           // a download
constexpr int FSEVENT_CREATE_FOLDER_FAILED = 4;  // creating a folder
constexpr int FSEVENT_DELETE_FAILED = 5;         // deleting an item
constexpr int FSEVENT_MOVE_FAILED = 6;           // moving an item
constexpr int FSEVENT_RENAME_FAILED = 7;         // renaming an item

// Kinds of outcomes reported through IFSEvent::Notice.
constexpr int FSNOTICE_RENAMED = 1;         // a rename or move completed
constexpr int FSNOTICE_UPLOAD_DECIDED = 2;  // the host's answer to a failed upload was carried out
constexpr int FSNOTICE_SAVED_TO_FILE = 3;   // cached content was saved to a local file
constexpr int FSNOTICE_SAVE_FAILED = 4;     // saving cached content to a local file failed

// Answers of IFSEvent::AskUploadFailure.
constexpr int UPLOAD_ANSWER_CANCEL = 1;  // give up: the remote file stays as it was
constexpr int UPLOAD_ANSWER_RETRY = 2;   // upload again now
constexpr int UPLOAD_ANSWER_SAVE = 3;    // save the data to the local file written into the buffer

// Set on a file system with IFileSystem_V2::SetFSEvent and held by shared
// pointer. Called from the library's threads; implementations are thread
// safe and must not call back into the file system from Error, Notice or
// Progress.
//
// Paths: `localPath` is the item's path as the operating system sees it (the
// mount point, "/", the path in the volume); `originPath` is the volume's
// label, "/", and the path in the volume; `printPath` is the path below the
// mount point with "%" doubled so it can stand in a log format.
//
// Virtual operations, in slot order:
//   0  Error(kind, code, localPath, originPath, cookie)
//        A remote operation of FSEVENT_* `kind` failed with `code`. `cookie` is
//        the protocol's error object (IProtocol_V2::DescribeCookie), valid
//        only during the call.
//   1  Notice(kind, localPath, originPath, printPath)
//        An FSNOTICE_* outcome.
//   2  AskUploadFailure(code, localPath, answerPath, answerLength) -> int
//        An upload of a closed file failed with `code`. Answers
//        UPLOAD_ANSWER_CANCEL, UPLOAD_ANSWER_RETRY or UPLOAD_ANSWER_SAVE; for
//        the last, writes the local file's path, NUL-terminated, into
//        `answerPath` of `answerLength` bytes. Any other answer leaves the data
//        cached and the upload pending until the host calls
//        IFileSystem_V2::UploadCacheRetry, UploadCacheSave or UploadCacheCancel.
//        May block while the host asks its user; it runs on a background worker.
//   3  Progress(localPath, done, total, rate)
//        An upload sent `done` of `total` bytes, at `rate` bytes a second.
//   4, 5  destructors.
class IFSEvent {
  public:
    virtual void Error(int kind, AERROR code, const char* localPath, const char* originPath,
                       void* cookie) = 0;
    virtual void Notice(int kind, const char* localPath, const char* originPath,
                        const char* printPath) = 0;
    virtual int AskUploadFailure(AERROR code, const char* localPath, char* answerPath,
                                 unsigned long answerLength) = 0;
    virtual void Progress(const char* localPath, unsigned long long done, unsigned long long total,
                          double rate) = 0;
    virtual ~IFSEvent() = default;
};

#endif  // LIBFILESYSTEM_EVENT_SINK_H_
