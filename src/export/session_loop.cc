#include "export/session_loop.h"

// Linux only: the FUSE kernel headers name the opcodes.
#ifndef __APPLE__

#include <linux/fuse.h>
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>

#include "export/forget_gate.h"

namespace {

constexpr int kMaxIdleWorkers = 10;

struct Loop;

struct Worker {
    Loop* loop = nullptr;
    pthread_t thread{};
    // Left uninitialised: a worker that only ever reads small requests
    // never touches, so never makes resident, most of its 132 KiB.
    std::unique_ptr<char[]> buffer;
    size_t bufferSize = 0;
};

struct Loop {
    fuse_session* session = nullptr;
    fuse_chan* channel = nullptr;
    ForgetGate gate;
    std::mutex mutex;
    std::condition_variable finished;
    std::list<Worker> workers;  // guarded by mutex
    int idle = 0;               // guarded by mutex
    bool exiting = false;       // guarded by mutex
    bool failed = false;        // guarded by mutex

    Loop(fuse_session* s, fuse_chan* c)
        : session(s), channel(c), gate([this](const char* data, size_t size) {
              fuse_buf buf{};
              buf.size = size;
              buf.mem = const_cast<char*>(data);
              fuse_session_process_buf(session, &buf, channel);
          }) {}
};

void* Work(void* data);

// Starts one more worker; `loop.mutex` is held.
bool StartWorker(Loop& loop) {
    Worker& worker = loop.workers.emplace_back();
    worker.loop = &loop;
    worker.bufferSize = fuse_chan_bufsize(loop.channel);
    worker.buffer.reset(new char[worker.bufferSize]);
    // Signals stay with the host's threads.
    sigset_t blocked, old;
    sigemptyset(&blocked);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT})
        sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &old);
    int error = pthread_create(&worker.thread, nullptr, Work, &worker);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (error != 0) {
        loop.workers.pop_back();
        return false;
    }
    ++loop.idle;
    return true;
}

uint32_t Opcode(const fuse_buf& buf) {
    if ((buf.flags & FUSE_BUF_IS_FD) != 0 || buf.size < sizeof(fuse_in_header)) return 0;
    return static_cast<const fuse_in_header*>(buf.mem)->opcode;
}

// Handles one request; false when this worker should end.
bool Handle(Worker& worker, fuse_buf& buf, fuse_chan* channel) {
    Loop& loop = *worker.loop;
    const uint32_t opcode = Opcode(buf);
    if (opcode == FUSE_FORGET || opcode == FUSE_BATCH_FORGET) {
        loop.gate.Forget(static_cast<const char*>(buf.mem), buf.size);
        return true;
    }
    {
        std::lock_guard<std::mutex> lock(loop.mutex);
        if (loop.exiting) return false;
        if (--loop.idle == 0) StartWorker(loop);
    }
    // An interrupt only marks a request; it never waits behind FORGETs.
    if (opcode == FUSE_INTERRUPT) {
        fuse_session_process_buf(loop.session, &buf, channel);
    } else {
        loop.gate.Request([&] { fuse_session_process_buf(loop.session, &buf, channel); });
    }
    std::lock_guard<std::mutex> lock(loop.mutex);
    if (loop.exiting) return false;
    if (++loop.idle <= kMaxIdleWorkers) return true;
    --loop.idle;
    pthread_detach(worker.thread);
    loop.workers.remove_if([&](const Worker& w) { return &w == &worker; });
    return false;
}

// Not instrumented by AddressSanitizer: a worker cancelled in its read is
// unwound through this frame, and ASan would not clear the frame's red zones,
// then report them when the thread's stack is reused at its exit.
__attribute__((no_sanitize_address)) void* Work(void* data) {
    Worker& worker = *static_cast<Worker*>(data);
    Loop& loop = *worker.loop;
    while (!fuse_session_exited(loop.session)) {
        fuse_chan* channel = loop.channel;
        fuse_buf buf{};
        buf.mem = worker.buffer.get();
        buf.size = worker.bufferSize;
        // A worker waiting for the kernel may be cancelled when the loop ends.
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        int received = fuse_session_receive_buf(loop.session, &buf, &channel);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        if (received == -EINTR) continue;
        if (received <= 0) {
            if (received < 0) fuse_session_exit(loop.session);
            std::lock_guard<std::mutex> lock(loop.mutex);
            loop.failed = loop.failed || received < 0;
            break;
        }
        // Handle() frees this worker when it returns false after going idle.
        if (!Handle(worker, buf, channel)) return nullptr;
    }
    std::lock_guard<std::mutex> lock(loop.mutex);
    loop.finished.notify_all();
    return nullptr;
}

}  // namespace

int ServeSession(fuse_session* session) {
    Loop loop(session, fuse_session_next_chan(session, nullptr));
    std::unique_lock<std::mutex> lock(loop.mutex);
    if (!StartWorker(loop)) return -1;
    loop.finished.wait(lock, [&] { return fuse_session_exited(session) != 0; });
    loop.exiting = true;
    for (Worker& worker : loop.workers)
        pthread_cancel(worker.thread);
    std::list<Worker> workers;
    workers.swap(loop.workers);
    lock.unlock();
    for (Worker& worker : workers)
        pthread_join(worker.thread, nullptr);
    return loop.failed ? -1 : 0;
}

#endif  // __APPLE__
