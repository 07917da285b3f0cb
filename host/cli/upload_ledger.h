// What skarvo knows of each upload while it runs: how far it got, how often
// it failed and why. It annotates the cache's list of unsent files for
// `skarvo status`; the cache, not this ledger, says what is unsent.
#ifndef SKARVO_CLI_UPLOAD_LEDGER_H_
#define SKARVO_CLI_UPLOAD_LEDGER_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "libfilesystem/aerror.h"

struct UploadNote {
    bool running = false;  // progress came since the last failure
    uint64_t sent = 0;     // bytes, as the last progress said
    int failures = 0;      // since the file was last stored or saved
    std::string lastError;
};

// Thread safe. Files are named by their path under the mount point.
class UploadLedger {
  public:
    void Progress(const std::string& path, uint64_t done, uint64_t total);
    void Failed(const std::string& path, AERROR code);
    // The file is stored remotely or saved elsewhere: nothing more to say.
    void Forget(const std::string& path);
    std::map<std::string, UploadNote> Notes() const;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, UploadNote> notes_;
};

#endif  // SKARVO_CLI_UPLOAD_LEDGER_H_
