// Written data that a skarvo which died (SIGKILL, the OOM killer, a power
// cut) never uploaded is still in the cache, which also knows where each
// file belongs. Before the volume is mounted again, each such file goes to
// its remote when the remote file is still the version the local change
// began from, and to the recovery folder when it is not or the upload
// fails. Since this runs before the volume is served, no new write to those
// files can come before their upload.
#ifndef SKARVO_CLI_CRASH_RECOVERY_H_
#define SKARVO_CLI_CRASH_RECOVERY_H_

#include <string>
#include <vector>

#include "cli/upload_events.h"
#include "libfilesystem/log.h"
#include "libfilesystem/protocol.h"
#include "services/disk_cache.h"

struct RecoveryRemote {
    std::string identity;  // as the cache records it
    std::string name;      // as the user gave it, for messages
    IProtocol_V2* protocol = nullptr;
};

struct RecoveryResult {
    int uploaded = 0;
    int saved = 0;    // to the recovery folder
    int dropped = 0;  // data of files deleted while they were open
    int kept = 0;     // left in the cache for a later mount

    int Files() const { return uploaded + saved + dropped + kept; }
};

// Uploads or saves every entry of `cache` that holds unsent data. Each file
// is logged by its path under `mountPoint`: uploads at info level, saves
// and anything kept at warning level, with the reason.
RecoveryResult RecoverUnsentData(DiskCache* cache, const std::vector<RecoveryRemote>& remotes,
                                 const std::string& mountPoint, UploadEvents* events, ILog* log);

#endif  // SKARVO_CLI_CRASH_RECOVERY_H_
