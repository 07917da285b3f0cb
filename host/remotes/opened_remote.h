// What opening a remote takes and gives, for every kind of remote.
#ifndef SKARVO_REMOTES_OPENED_REMOTE_H_
#define SKARVO_REMOTES_OPENED_REMOTE_H_

#include <memory>
#include <string>

#include "libfilesystem/log.h"
#include "libfilesystem/protocol.h"
#include "remotes/stop_notice.h"

// A remote that was opened, ready to be added to a volume.
struct OpenedRemote {
    std::shared_ptr<IProtocol_V2> protocol;
    // For remotes kept in a folder of this machine: that folder's canonical
    // path, so that the mount point and the cache can be kept out of it.
    // Empty for every other kind.
    std::string localFolder;
};

// Options of the command line that network remotes use.
struct RemoteOptions {
    std::string passwordFile;  // --password-file; empty: none
    std::string password;      // of a named remote; empty: the usual sources
    bool insecure = false;     // --insecure: accept any TLS certificate
    long timeoutSeconds = 30;  // --timeout: of each request, and of a hung fault: call
    ILog* log = nullptr;       // where remotes log; may be null
    // Given when skarvo begins to stop; null: never.
    std::shared_ptr<StopNotice> stopping;
};

#endif  // SKARVO_REMOTES_OPENED_REMOTE_H_
