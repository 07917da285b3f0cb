// The faults a "fault:FAULTS:REMOTE" remote injects, and the text they are
// written in. FAULTS is a comma-separated list of items, later items winning
// over earlier ones for the same operation:
//   OP=FRACTION[:ERROR]    fails FRACTION (0 to 1) of OP's calls with the
//                          error called ERROR ("SOCK_CONNECTION_REFUSED");
//                          default SOCK_REMOTE_HOST_CLOSED
//   latency=[OP:]DURATION  delays every call of OP (default: of all), e.g.
//                          "20ms", "2s"
//   hang=OP                every call of OP hangs until the remote time-out,
//                          then fails with SOCK_TIMEOUT
//   seed=N                 seeds the draws (default 1), so a run repeats
//   rate=SIZE              uploads read their data at most SIZE bytes a
//                          second ("256k", "1m"), as over a slow link
//   switch=PATH            the faults apply only while the file PATH exists
// OP is one of list, get, download, upload, mkdir, delete, rename, move,
// changes, quota, settime, or all of them as "all".
#ifndef SKARVO_REMOTES_FAULT_LIST_H_
#define SKARVO_REMOTES_FAULT_LIST_H_

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "common/status.h"
#include "libfilesystem/aerror.h"

// The operations faults are injected into, by the protocol calls they cover.
enum class FaultOp {
    kList,      // ListFolder
    kGet,       // GetItem, GetItemByPath
    kDownload,  // Download
    kUpload,    // UploadItem
    kMkdir,     // CreateFolder
    kDelete,    // DeleteItem, DeleteFolder
    kRename,    // RenameItem
    kMove,      // MoveItem, MoveFolder
    kChanges,   // GetChanges
    kQuota,     // GetQuota
    kSetTime,   // SetItemTime
};
constexpr size_t kFaultOpCount = 11;

// "list", "get"...
const char* FaultOpName(FaultOp op);

// What happens to the calls of one operation.
struct OpFaults {
    double fraction = 0;  // of calls that fail
    AERROR error = SOCK_REMOTE_HOST_CLOSED;
    std::chrono::milliseconds latency{0};
    bool hang = false;
};

struct FaultList {
    std::array<OpFaults, kFaultOpCount> ops;
    uint64_t seed = 1;
    uint64_t uploadRate = 0;  // bytes a second; 0: unlimited
    std::string switchFile;   // empty: always on
    std::string text;         // as written

    const OpFaults& Of(FaultOp op) const { return ops[static_cast<size_t>(op)]; }
};

// Parses FAULTS. Fails with one line naming the bad item.
Status ParseFaultList(const std::string& text, FaultList* faults);

// Splits "FAULTS:REMOTE" where REMOTE begins: at the first colon followed by
// a name for which `isScheme` is true and another colon (error names, which
// also follow colons, are upper case). False when there is no such colon.
bool SplitFaultLocation(const std::string& location,
                        const std::function<bool(const std::string&)>& isScheme,
                        std::string* faults, std::string* remote);

#endif  // SKARVO_REMOTES_FAULT_LIST_H_
