// Jobs and the host's job queue.
#ifndef LIBFILESYSTEM_ASYNC_H_
#define LIBFILESYSTEM_ASYNC_H_

#include "libfilesystem/aerror.h"

// A unit of work that the library hands to the host's job queue: directory
// listings, uploads and each file system's long-running background workers.
//
// Virtual operations, in slot order:
//   0  Process(context)
//        Runs the job on a thread of the queue. `context` is what was given to
//        Queue. The value (void*)1 means "there is no queue: you run inline on
//        the caller's thread", and a job seeing it must not block waiting for
//        further work.
//   1  Canceled(context)
//        Called instead of Process when the queue drops the job without
//        running it (for example while the queue stops).
//   2, 3  destructors.
// The queue never deletes a job: the library owns its jobs and keeps them
// alive until Process or Canceled has returned.
class IAsyncObj {
  public:
    virtual void Process(void* context) = 0;
    virtual void Canceled(void* context) = 0;
    virtual ~IAsyncObj() = default;
};

// The host's job queue, bound with FS_BindAsyncQ.
//
// Virtual operations, in slot order:
//   0  Stop()
//        Stops the queue: no job is accepted afterwards, queued jobs that have
//        not started get Canceled, running jobs are waited for. Host only; the
//        library never calls it.
//   1  Queue(job, context) -> AERROR
//        Runs job->Process(context) later on a thread of the queue. Called by
//        the library with its queue lock held, so it must not call back into
//        the library's bind or queue functions. Each file system keeps four
//        jobs running for its whole life, so a queue must be able to run more
//        jobs at once than four per mount plus listings and uploads (a fixed
//        pool that small starves the listings). ASYNCQ_STOPPED when the queue
//        no longer accepts jobs, ASYNCQ_NULLOBJECT for a null job,
//        ASYNCQ_THREADCREATIONFAILED when no thread could run it; on any
//        failure the library runs the job inline with context (void*)1.
//   2  Drain()
//        Called by the library when a mount has been torn down, after its
//        background workers were told to stop: returns once the jobs that are
//        finishing have returned to the queue. It must return even while other
//        mounts' long-running jobs keep running.
//   3, 4  destructors.
class IAsyncQ {
  public:
    virtual void Stop() = 0;
    virtual AERROR Queue(IAsyncObj* job, void* context) = 0;
    virtual void Drain() = 0;
    virtual ~IAsyncQ() = default;
};

#endif  // LIBFILESYSTEM_ASYNC_H_
