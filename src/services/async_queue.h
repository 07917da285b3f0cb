// The library's one road to the host's job queue.
#ifndef LIBFS_SERVICES_ASYNC_QUEUE_H_
#define LIBFS_SERVICES_ASYNC_QUEUE_H_

#include "libfilesystem/async.h"

// The context a job receives when it runs inline on the caller's thread
// because no queue is bound (or the queue refused it). Such a job must not
// block waiting for further work.
inline void* const kInlineContext = reinterpret_cast<void*>(1);

// Hands `job` to the bound queue with `context`. With no queue bound, runs
// job->Process inline before returning, with `context` or, when it is null,
// kInlineContext. A queue that refuses the job gets the same treatment, so a
// job is never lost.
void QueueAsync(IAsyncObj* job, void* context);

#endif  // LIBFS_SERVICES_ASYNC_QUEUE_H_
