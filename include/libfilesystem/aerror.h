// AERROR: the one result type of the library and of the host interfaces.
//
// Every operation that can fail returns an AERROR; SUCCESS is 0 and every
// failure is non-zero. The values come in numeric groups with gaps between
// them. The enumerator names are also the texts that GetAERRORA returns and
// that hosts and log readers know, so they must never be renamed (including
// SOCK_ADDRESS_NOT_AVALIABLE, spelled as the logs have always spelled it).
#ifndef LIBFILESYSTEM_AERROR_H_
#define LIBFILESYSTEM_AERROR_H_

#include <cstdint>

#include "libfilesystem/visibility.h"

enum AERROR : int32_t {
    // General results.
    SUCCESS = 0,
    FAILED = 1,
    RETRY = 2,
    CANCEL = 3,
    ACCESS_VIOLATION = 4,
    INSUFFICIENT_BUFFER = 5,
    INVALID_PARAMETER = 6,
    FOLDER_CREATION_FAILED = 7,
    NOT_SUPPORTED = 8,
    FILE_OPEN_FAILED = 9,
    FILE_READ_FAILED = 10,
    FILE_WRITE_FAILED = 11,
    FILE_SEEK_FAILED = 12,
    READ_CANCELED = 13,
    UPLOAD_CANCELED = 14,
    RETRY_UPLOAD = 15,
    SAVE_TO_LOCAL = 16,
    SAVE_FAILED = 17,
    DEVICE_NOT_READY = 18,
    FILE_NOT_FOUND = 19,
    PATH_NOT_FOUND = 20,
    CAN_NOT_MAKE = 21,
    FILE_EXISTS = 22,
    ALREADY_EXISTS = 23,
    ACCESS_DENIED = 24,
    INVALID_NAME = 25,
    OPEN_FAILED = 26,
    NO_ACCESS = 27,
    INVALID_USER_BUFFER = 28,
    INVALID_HANDLE = 29,
    INVALID_DIRECTORY = 30,
    DELETE_PENDING = 31,
    PENDING = 32,
    NO_PRIVILEGE = 33,
    NET_WRITE_FAILED = 34,
    HANDLE_EOF = 35,
    DIR_NOT_EMPTY = 36,
    SHARING_VIOLATION = 37,
    INVALID_FUNCTION = 38,
    READ_ONLY_FILE = 39,
    WRITE_PROTECT = 40,
    BAD_ARGUMENTS = 41,

    // The host's asynchronous job queue.
    ASYNCQ_STOPPED = 1000,
    ASYNCQ_NULLOBJECT = 1001,
    ASYNCQ_THREADCREATIONFAILED = 1002,

    // File system and mount.
    FS_UNKNOWN_ERROR = 2001,
    FS_ALREADY_AUTHORIZED = 2002,
    FS_ALREADY_MOUNTED = 2003,
    FS_INVALID_LETTER = 2004,
    FS_UNKNOWN_MOUNT_TYPE = 2005,
    FS_DRIVER_ERROR = 2006,
    FS_START_ERROR = 2007,
    FS_MOUNT_ERROR = 2008,
    FS_MOUNT_POINT_ERROR = 2009,
    FS_UNMOUNT_FAILED = 2010,
    FS_UNMOUNT_EXIST_UPLOADING = 2011,
    FS_INITIALIZE_FIRST = 2012,
    FS_NEED_REFRESH = 2013,
    FS_NEED_AUTHORIZE = 2014,

    // The host's cache service and the cache I/O objects.
    CACHE_TOO_SMALL = 3001,
    CACHE_INVALID_OPEN_MODE = 3002,
    CACHE_INVALID_PATH = 3003,
    CACHE_CREATE_FAILED = 3004,
    CACHE_NOT_OPENED = 3005,
    CACHE_OFFSET_NOT_ALIGNED = 3006,
    CACHE_WRITE_FAILED = 3007,
    CACHE_READ_FAILED = 3008,
    CACHE_BLOCK_RESERVED = 3009,
    CACHE_BLOCK_EMPTY = 3010,
    CACHE_NO_NEED_READAHEAD = 3011,
    CACHE_NEED_READAHEAD = 3012,
    CACHE_READAHEAD = 3013,
    CACHE_NO_RESERVED_BLOCKS = 3014,

    // Certificates, reported by host protocols.
    CERT_ERROR = 4000,
    CERT_NOT_SSL = 4001,
    CERT_INVALID = 4002,
    CERT_NEED_CONFIRM = 4003,
    CERT_ISSUER_NOT_FOUND = 4004,

    // JSON text.
    JSON_ERROR = 6000,
    JSON_PARSE_FAILED = 6001,

    // Authentication, reported by host protocols.
    AUTH_ERROR = 7000,
    AUTH_RETRY = 7001,
    AUTH_CANCEL = 7002,
    AUTH_FAILED = 7003,
    AUTH_INVALID_APP = 7005,
    AUTH_KEY_NOT_FOUND = 7006,

    // Sockets, reported by host protocols.
    SOCK_CONNECTION_REFUSED = 8001,
    SOCK_REMOTE_HOST_CLOSED = 8002,
    SOCK_HOST_NOT_FOUND = 8003,
    SOCK_ACCESS_ERROR = 8004,
    SOCK_RESOURCE_ERROR = 8005,
    SOCK_TIMEOUT = 8006,
    SOCK_DATAGRAM_TOO_LARGE = 8007,
    SOCK_NETWORK_ERROR = 8008,
    SOCK_ADDRESS_IN_USE = 8009,
    SOCK_ADDRESS_NOT_AVALIABLE = 8010,
    SOCK_UNSUPPORTED_SOCKET_OPERATION = 8011,
    SOCK_UNFINISHED_SOCKET_OPERATION = 8012,
    SOCK_PROXY_AUTH_REQUIRED = 8013,
    SOCK_SSL_HANDSHAKE_FAILED = 8014,
    SOCK_PROXY_CONNECTION_REFUSED = 8015,
    SOCK_PROXY_CONNECTION_CLOSED = 8016,
    SOCK_PROXY_CONNECTION_TIMEOUT = 8017,
    SOCK_PROXY_NOT_FOUND = 8018,
    SOCK_PROXY_PROTOCOL_ERROR = 8019,
    SOCK_OPERATION_ERROR = 8020,
    SOCK_SSL_INTERNAL_ERROR = 8021,
    SOCK_SSL_INVALID_USER_DATA = 8022,
    SOCK_TEMPORARY_ERROR = 8023,
    SOCK_UNKNOWN_SOCKET_ERROR = 8024,
};

extern "C" {

// The symbolic name of `code` ("SUCCESS", "FILE_NOT_FOUND", ...), or "Unknown"
// for any value outside the table. Returns a static string; never fails.
LIBFS_API const char* GetAERRORA(AERROR code);

// The value a FUSE callback returns for `code`: 0 for SUCCESS, -ENOENT (-2)
// for FILE_NOT_FOUND and -EIO (-5) for every other code. Operations that need
// a finer errno map their codes themselves before falling back on this.
LIBFS_API int ConvertAERROR(AERROR code);

}  // extern "C"

#endif  // LIBFILESYSTEM_AERROR_H_
