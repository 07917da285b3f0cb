#ifndef LIBFS_EXPORT_FORGET_GATE_H_
#define LIBFS_EXPORT_FORGET_GATE_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

// Runs the kernel's FORGET messages only while no other request is being
// processed.
//
// libfuse 2's path table frees a node when its last lookup is forgotten and
// its last child is gone, without checking that a request still holds the
// node's path lock. Worker threads may handle a parent's FORGET before its
// child's; the parent then lingers with no lookup, and a rename onto its
// name write-locks it. If the child's FORGET runs during that rename, libfuse
// frees the locked parent and aborts ("delete_node: Assertion
// node->treelock == 0"). With FORGETs run alone, in the order they arrived,
// no path lock is ever held while one frees nodes.
//
// A FORGET that arrives during other requests waits in a backlog, which the
// last of those requests runs when it ends. The backlog is bounded: while it
// is full, new requests wait until it has run.
class ForgetGate {
  public:
    // `run` handles one FORGET message; it is called with no lock held.
    using Run = std::function<void(const char* data, size_t size)>;

    explicit ForgetGate(Run run, size_t backlog = 256);

    // Handles a request other than a FORGET with `process`, after any
    // FORGETs being run have ended. A template, not a std::function: it is
    // on the path of every request.
    template <typename Process>
    void Request(Process&& process) {
        Enter();
        process();
        Leave();
    }

    // Takes a FORGET message: runs it now if nothing else is being processed,
    // or keeps a copy for the last request in progress to run.
    void Forget(const char* data, size_t size);

  private:
    // Waits until no FORGET runs and the backlog has room, then counts a
    // request in; Leave counts it out and runs the backlog after the last.
    void Enter();
    void Leave();
    // Runs the backlog until it is empty; `lock` holds mutex_ on entry and
    // on return, and is released while messages run.
    void RunBacklog(std::unique_lock<std::mutex>& lock);

    using Message = std::vector<char>;

    const Run run_;
    const size_t limit_;
    std::mutex mutex_;
    std::condition_variable idle_;
    int active_ = 0;           // requests being processed
    bool forgetting_ = false;  // a thread runs the backlog
    std::deque<Message> backlog_;
};

#endif  // LIBFS_EXPORT_FORGET_GATE_H_
