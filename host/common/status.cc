#include "common/status.h"

#include <errno.h>
#include <string.h>

Status Status::FromErrno(int err, const std::string& what) {
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
