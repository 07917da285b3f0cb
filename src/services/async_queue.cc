#include "services/async_queue.h"

#include <mutex>

#include "libfilesystem/entry_points.h"
#include "services/log.h"

void QueueAsync(IAsyncObj* job, void* context) {
    if (job == nullptr) return;
    AERROR refused = SUCCESS;
    {
        std::lock_guard<std::mutex> lock(aql);
        if (aq != nullptr) {
            refused = aq->Queue(job, context);
            if (refused == SUCCESS) return;
        }
    }
    if (refused != SUCCESS) {
        __LOG__A(CurrentLogger(), LL_WARNING,
                 "[FILESYSTEM] Job queue refused a job (%s); running it inline",
                 GetAERRORA(refused));
        // A refused job runs without a queue: tell it so, whatever its context.
        job->Process(kInlineContext);
        return;
    }
    job->Process(context != nullptr ? context : kInlineContext);
}
