// How the answers of a WebDAV server and libcurl's transport failures become
// the library's error codes.
//
// HTTP statuses:
//   401               AUTH_FAILED          403  ACCESS_DENIED
//   404, 410          FILE_NOT_FOUND       409  PATH_NOT_FOUND (a parent is missing)
//   405 on MKCOL      ALREADY_EXISTS       405 otherwise NOT_SUPPORTED
//   412 on PUT        SHARING_VIOLATION: the file changed on the server since
//                     the local change began (or, for a new file, another
//                     client created it); the host saves such a conflict to
//                     the recovery folder instead of retrying it
//   412 otherwise     ALREADY_EXISTS (MOVE with "Overwrite: F")
//   413, 507          FILE_WRITE_FAILED: the server is full or refuses the
//                     size, as a full local disk is reported
//   423               SHARING_VIOLATION (locked by another client)
//   502, 503, 504     SOCK_TEMPORARY_ERROR; other 5xx FAILED
// Transport failures:
//   connection refused SOCK_CONNECTION_REFUSED, name not resolved
//   SOCK_HOST_NOT_FOUND, time-out SOCK_TIMEOUT, reset or closed connection
//   SOCK_REMOTE_HOST_CLOSED, TLS handshake SOCK_SSL_HANDSHAKE_FAILED, an
//   untrusted certificate CERT_INVALID, anything else SOCK_NETWORK_ERROR.
#ifndef SKARVO_REMOTES_WEBDAV_ERRORS_H_
#define SKARVO_REMOTES_WEBDAV_ERRORS_H_

#include <curl/curl.h>

#include <string>

#include "libfilesystem/aerror.h"

AERROR MapHttpStatus(long status, const std::string& method);
AERROR MapCurlCode(CURLcode code);

// Failures worth another try of an idempotent request: a lost or refused
// connection, a time-out, and 5xx answers other than 501 and 507.
bool IsTransientCurlCode(CURLcode code);
bool IsTransientStatus(long status);

#endif  // SKARVO_REMOTES_WEBDAV_ERRORS_H_
