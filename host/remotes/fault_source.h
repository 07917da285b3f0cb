// An upload source that gives out only the first `cutoff` bytes of another
// and then fails with `code`, as a connection that drops in mid-upload does.
// A remote reading it must not store anything under the target's name.
#ifndef SKARVO_REMOTES_FAULT_SOURCE_H_
#define SKARVO_REMOTES_FAULT_SOURCE_H_

#include <cstdint>

#include <chrono>

#include "libfilesystem/cache.h"

class CutSource : public ICacheIO {
  public:
    CutSource(ICacheIO* source, int64_t cutoff, AERROR code)
        : source_(source), cutoff_(cutoff), code_(code) {}

    // Reads that start at the cutoff or beyond fail; reads across it are
    // shortened to end there.
    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override { return source_->Write(request); }

  private:
    ICacheIO* const source_;
    const int64_t cutoff_;
    const AERROR code_;
};

// An upload source that gives out at most `rate` bytes a second, as over a
// slow link, until the upload ends or its source fails (a cancelled upload).
class SlowSource : public ICacheIO {
  public:
    SlowSource(ICacheIO* source, uint64_t rate)
        : source_(source), rate_(rate), start_(std::chrono::steady_clock::now()) {}

    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override { return source_->Write(request); }

  private:
    ICacheIO* const source_;
    const uint64_t rate_;
    const std::chrono::steady_clock::time_point start_;
    uint64_t given_ = 0;
};

#endif  // SKARVO_REMOTES_FAULT_SOURCE_H_
