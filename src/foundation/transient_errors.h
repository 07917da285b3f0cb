// Failures that say nothing about the request itself: the connection broke
// or the remote was briefly unable to answer. Asking again soon may work.
// A time-out is not among them: the caller has already waited its share.
#ifndef LIBFS_FOUNDATION_TRANSIENT_ERRORS_H_
#define LIBFS_FOUNDATION_TRANSIENT_ERRORS_H_

#include "libfilesystem/aerror.h"

inline bool IsTransientError(AERROR code) {
    switch (code) {
        case SOCK_CONNECTION_REFUSED:
        case SOCK_REMOTE_HOST_CLOSED:
        case SOCK_NETWORK_ERROR:
        case SOCK_OPERATION_ERROR:
        case SOCK_TEMPORARY_ERROR:
        case SOCK_UNKNOWN_SOCKET_ERROR:
            return true;
        default:
            return false;
    }
}

#endif  // LIBFS_FOUNDATION_TRANSIENT_ERRORS_H_
