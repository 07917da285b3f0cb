// The result of one step of the host: success, or a library error code with
// a text that says what failed and why ("cannot create /x: Permission
// denied"). The text is shown to people as it is, so callers build it
// completely; the code tells the library (or a caller) what kind of failure
// it was, FAILED where nothing more precise is known.
#ifndef SKARVO_COMMON_STATUS_H_
#define SKARVO_COMMON_STATUS_H_

#include <string>
#include <utility>

#include "libfilesystem/aerror.h"

class Status {
  public:
    // Success.
    Status() = default;

    static Status Ok() { return {}; }
    static Status Error(AERROR code, std::string message) {
        return Status(code, std::move(message));
    }
    static Status Error(std::string message) { return Status(FAILED, std::move(message)); }
    // `what` followed by ": " and the errno's text, with the code from MapErrno.
    static Status FromErrno(int err, const std::string& what);

    bool ok() const { return code_ == SUCCESS; }
    AERROR code() const { return code_; }
    const std::string& message() const { return message_; }

    void set_code(AERROR code) { code_ = code; }
    void set_message(std::string message) { message_ = std::move(message); }

  private:
    Status(AERROR code, std::string message) : code_(code), message_(std::move(message)) {}

    AERROR code_ = SUCCESS;
    std::string message_;
};

// ENOENT: FILE_NOT_FOUND; EEXIST: ALREADY_EXISTS; EACCES, EPERM and ELOOP
// (a symbolic link met with O_NOFOLLOW): ACCESS_DENIED; EROFS: WRITE_PROTECT;
// ENOSPC, EDQUOT, EFBIG: FILE_WRITE_FAILED; ENOTEMPTY: DIR_NOT_EMPTY;
// ENAMETOOLONG: INVALID_NAME; ENOTDIR: PATH_NOT_FOUND; EISDIR: ACCESS_DENIED;
// EINVAL: INVALID_PARAMETER; anything else FAILED.
AERROR MapErrno(int err);

// The C library's text of `err`.
std::string ErrnoText(int err);

#endif  // SKARVO_COMMON_STATUS_H_
