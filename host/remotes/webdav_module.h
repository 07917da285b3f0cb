// skarvo's WebDAV module: the WebDAV remote with the HTTP, TLS and XML
// libraries it needs, built as skarvo-webdav.so and loaded only when a WebDAV
// remote is mounted. A mount of any other remote never maps those libraries,
// which would cost it about 7 MiB of resident memory.
#ifndef SKARVO_REMOTES_WEBDAV_MODULE_H_
#define SKARVO_REMOTES_WEBDAV_MODULE_H_

#include <string>

#include "common/status.h"
#include "remotes/opened_remote.h"

// The file name of the module, and the name of its one entry point.
constexpr char kWebdavModuleName[] = "skarvo-webdav.so";
constexpr char kWebdavEntryPoint[] = "skarvo_open_webdav";

// The entry point: opens the share at `location` ("//[USER@]HOST[:PORT]/PATH",
// over TLS when `tls`) and checks that it answers, so that a wrong password
// or an untrusted certificate stops the mount at once with the server's
// answer. Puts the outcome in *status.
using OpenWebdavEntry = void (*)(bool tls, const std::string& location,
                                 const RemoteOptions& options, OpenedRemote* opened,
                                 Status* status);

#endif  // SKARVO_REMOTES_WEBDAV_MODULE_H_
