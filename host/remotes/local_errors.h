// Failures of the local-folder remote: how an errno becomes an AERROR, and
// the error objects ("cookies") that carry a readable text to the library.
#ifndef SKARVO_REMOTES_LOCAL_ERRORS_H_
#define SKARVO_REMOTES_LOCAL_ERRORS_H_

#include <string>

#include "libfilesystem/aerror.h"

// The result of one step: SUCCESS, or a code with a text naming what failed
// and why ("/docs/a.txt: No such file or directory").
struct LocalStatus {
    AERROR code = SUCCESS;
    std::string text;

    bool ok() const { return code == SUCCESS; }

    static LocalStatus Ok() { return {}; }
    static LocalStatus Error(AERROR code, std::string text);
    // `what` followed by the errno's text, with the code from MapErrno.
    static LocalStatus FromErrno(int err, const std::string& what);
};

// ENOENT: FILE_NOT_FOUND; EEXIST: ALREADY_EXISTS; EACCES, EPERM and ELOOP
// (a symbolic link met with O_NOFOLLOW): ACCESS_DENIED; EROFS: WRITE_PROTECT;
// ENOSPC, EDQUOT, EFBIG: FILE_WRITE_FAILED; ENOTEMPTY: DIR_NOT_EMPTY;
// ENAMETOOLONG: INVALID_NAME; ENOTDIR: PATH_NOT_FOUND; EISDIR: ACCESS_DENIED;
// EINVAL: INVALID_PARAMETER; anything else FAILED.
AERROR MapErrno(int err);

// The C library's text of `err`.
std::string ErrnoText(int err);

// Stores the status's text as a new error object in *cookie (when cookie is
// not null and the status is a failure) and returns the status's code.
AERROR ReportStatus(const LocalStatus& status, void** cookie);

// The text of an error object made by ReportStatus, or "" for null.
const std::string& CookieText(void* cookie);
void FreeCookie(void* cookie);

#endif  // SKARVO_REMOTES_LOCAL_ERRORS_H_
