// Opening WebDAV remotes through skarvo's WebDAV module, loaded at the first
// use (see remotes/webdav_module.h).
#ifndef SKARVO_CLI_WEBDAV_LOADER_H_
#define SKARVO_CLI_WEBDAV_LOADER_H_

#include <string>

#include "common/status.h"
#include "remotes/opened_remote.h"

// Opens the share as the module's entry point does. Fails, naming the file it
// looked for, when the module cannot be loaded. The module stays loaded for
// the life of the process: the remotes it made run its code.
Status OpenWebdavRemote(bool tls, const std::string& location, const RemoteOptions& options,
                        OpenedRemote* opened);

#endif  // SKARVO_CLI_WEBDAV_LOADER_H_
