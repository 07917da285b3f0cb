// An upload source that gives out only the first `cutoff` bytes of another
// and then fails with `code`, as a connection that drops in mid-upload does.
// A remote reading it must not store anything under the target's name.
#ifndef SKARVO_REMOTES_FAULT_SOURCE_H_
#define SKARVO_REMOTES_FAULT_SOURCE_H_

#include <cstdint>

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

#endif  // SKARVO_REMOTES_FAULT_SOURCE_H_
