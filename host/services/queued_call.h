// Running a function as a job on the host's queue.
#ifndef SKARVO_SERVICES_QUEUED_CALL_H_
#define SKARVO_SERVICES_QUEUED_CALL_H_

#include <functional>

#include "libfilesystem/async.h"

// Queues `run` on `queue`; `canceled`, when given, runs instead if the queue
// stops before the job started. False, running neither, when there is no
// queue or it refuses the job.
bool RunQueued(IAsyncQ* queue, std::function<void()> run, std::function<void()> canceled = nullptr);

#endif  // SKARVO_SERVICES_QUEUED_CALL_H_
