#include "remotes/local_errors.h"

#include <errno.h>
#include <string.h>

#include <utility>

namespace {

// What a cookie points to.
struct LocalCookie {
    std::string text;
};

}  // namespace

LocalStatus LocalStatus::Error(AERROR code, std::string text) {
    LocalStatus status;
    status.code = code;
    status.text = std::move(text);
    return status;
}

LocalStatus LocalStatus::FromErrno(int err, const std::string& what) {
    return Error(MapErrno(err), what + ": " + ErrnoText(err));
}

AERROR MapErrno(int err) {
    switch (err) {
        case 0:
            return SUCCESS;
        case ENOENT:
            return FILE_NOT_FOUND;
        case EEXIST:
            return ALREADY_EXISTS;
        case EACCES:
        case EPERM:
        case ELOOP:
        case EISDIR:
            return ACCESS_DENIED;
        case EROFS:
            return WRITE_PROTECT;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return FILE_WRITE_FAILED;
        case ENOTEMPTY:
            return DIR_NOT_EMPTY;
        case ENAMETOOLONG:
            return INVALID_NAME;
        case ENOTDIR:
            return PATH_NOT_FOUND;
        case EINVAL:
            return INVALID_PARAMETER;
        default:
            return FAILED;
    }
}

std::string ErrnoText(int err) {
    char buffer[256];
    // The GNU strerror_r returns the text, which may or may not be `buffer`.
    return strerror_r(err, buffer, sizeof buffer);
}

AERROR ReportStatus(const LocalStatus& status, void** cookie) {
    if (!status.ok() && cookie != nullptr) {
        *cookie = new LocalCookie{status.text.empty() ? GetAERRORA(status.code) : status.text};
    }
    return status.code;
}

const std::string& CookieText(void* cookie) {
    static const std::string kEmpty;
    return cookie == nullptr ? kEmpty : static_cast<LocalCookie*>(cookie)->text;
}

void FreeCookie(void* cookie) {
    delete static_cast<LocalCookie*>(cookie);
}
