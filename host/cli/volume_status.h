// What `skarvo status` reports of a mounted volume: the files whose written
// data is not on the remote yet (waiting, being uploaded, or failing), and
// the files in the recovery folder. Built from the cache, which keeps the
// unsent data across crashes, so the answer after a restart is the answer
// before it; the upload ledger adds progress and failures.
#ifndef SKARVO_CLI_VOLUME_STATUS_H_
#define SKARVO_CLI_VOLUME_STATUS_H_

#include <json/json.h>

#include <cstdint>
#include <string>
#include <utility>

#include "cli/upload_ledger.h"
#include "services/disk_cache.h"

// The JSON document `skarvo status --json` prints:
//   {"mountPoint": "/mnt/x", "allOnRemote": false,
//    "uploads": [{"file": "/mnt/x/a.txt", "size": 10, "state": "failing",
//                 "sent": 0, "attempts": 2, "lastError": "SOCK_TIMEOUT"}],
//    "recoveryFolder": "/var/cache/skarvo/recovered",
//    "recoveryFiles": ["/var/cache/skarvo/recovered/a.txt"]}
// `state` is "waiting", "uploading" or "failing"; `allOnRemote` is true when
// no upload is pending and the recovery folder holds nothing.
Json::Value VolumeStatus(const DiskCache& cache, const UploadLedger& ledger,
                         const std::string& mountPoint, const std::string& recoveryDir);

// How many files hold written data still to reach the remote, and how many
// bytes of it; the data of deleted files, which never goes, is left out.
std::pair<size_t, uint64_t> PendingUploads(const DiskCache& cache);

// The report as people read it, ending with one line that says whether
// everything written has reached the remote.
std::string FormatVolumeStatus(const Json::Value& status);

#endif  // SKARVO_CLI_VOLUME_STATUS_H_
