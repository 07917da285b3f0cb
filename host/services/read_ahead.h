// Read-ahead of a cache entry, run as a job on the host's queue.
#ifndef SKARVO_SERVICES_READ_AHEAD_H_
#define SKARVO_SERVICES_READ_AHEAD_H_

#include <memory>

#include "libfilesystem/async.h"
#include "services/cache_entry.h"

// Queues `plan` on `queue`. When the queue refuses it, the entry is told at
// once that no read-ahead runs. The job keeps the entry alive until it ends.
void StartReadAhead(IAsyncQ* queue, std::shared_ptr<CacheEntry> entry, const ReadAheadPlan& plan);

#endif  // SKARVO_SERVICES_READ_AHEAD_H_
