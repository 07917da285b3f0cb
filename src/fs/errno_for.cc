#include "fs/errno_for.h"

#include <cerrno>

int ErrnoFor(AERROR code) {
    switch (code) {
        case FILE_NOT_FOUND:
        case PATH_NOT_FOUND:
            return -ENOENT;
        case FILE_EXISTS:
        case ALREADY_EXISTS:
            return -EEXIST;
        case DIR_NOT_EMPTY:
            return -ENOTEMPTY;
        case INVALID_DIRECTORY:
            return -ENOTDIR;
        case NOT_SUPPORTED:
            return -EPERM;
        case ACCESS_DENIED:
        case NO_ACCESS:
        case NO_PRIVILEGE:
        case AUTH_FAILED:
        case WRITE_PROTECT:
            return -EACCES;
        case INVALID_NAME:
            return -EINVAL;
        case CACHE_TOO_SMALL:
            return -ENOSPC;
        case READ_ONLY_FILE:
            return -EROFS;
        case SOCK_TIMEOUT:
        case SOCK_PROXY_CONNECTION_TIMEOUT:
            return -ETIMEDOUT;
        default:
            return ConvertAERROR(code);
    }
}
