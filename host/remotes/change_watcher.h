// Reports of changes that other programs make to the remote folder of a
// local: remote, collected with inotify.
//
// Every folder below the root is watched, through /proc/self/fd of the
// folder opened without following links, so a watch never lands outside.
// A background thread reads the events as they come, keeps the watches in
// step with the tree (new folders are watched before their creation is
// reported, removed or moved-away folders are dropped) and queues reports:
//   IN_CREATE, IN_MOVED_TO                 Added(folder, record)
//   IN_DELETE, IN_MOVED_FROM               Removed(folder, name)
//   IN_CLOSE_WRITE, IN_ATTRIB, IN_MODIFY   Changed(item, record)
//   IN_Q_OVERFLOW                          Refresh of every watched folder
// Deliver hands the queue to the library's sink. Records are read when they
// are delivered, so they show the item's latest state, and a Changed that
// follows an Added or Changed of the same item still queued is dropped.
// Temporary upload files and changes announced through ExpectOwn are not
// reported. A queue that grows past a few thousand reports (nobody asked for
// changes for a long time) collapses into one Refresh per folder concerned.
#ifndef SKARVO_REMOTES_CHANGE_WATCHER_H_
#define SKARVO_REMOTES_CHANGE_WATCHER_H_

#include <sys/inotify.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "libfilesystem/protocol.h"
#include "libfilesystem/unique_fd.h"
#include "remotes/local_paths.h"
#include "remotes/own_changes.h"

class ChangeWatcher {
  public:
    // Watches the whole tree (synchronously, so that changes made after the
    // return are seen) and starts the thread, into *started. Fails, saying
    // why, when inotify cannot be used.
    static Status Start(std::shared_ptr<const LocalPaths> paths,
                        std::unique_ptr<ChangeWatcher>* started);
    ~ChangeWatcher();
    ChangeWatcher(const ChangeWatcher&) = delete;
    ChangeWatcher& operator=(const ChangeWatcher&) = delete;

    // Stops and joins the thread; reports already queued can still be
    // delivered. Safe to call more than once.
    void Stop();

    // See OwnChanges::Expect. Thread safe.
    void ExpectOwn(const std::string& key, uint32_t mask, bool subtree) {
        own_.Expect(key, mask, subtree);
    }

    // Sends the queued reports to `sink`, holding no lock during the calls.
    void Deliver(IFileChanges* sink);

  private:
    struct Report {
        enum class Kind { kAdded, kRemoved, kChanged, kRefresh };
        Kind kind;
        std::string folderKey;
        std::string name;  // empty for kRefresh
    };

    ChangeWatcher(std::shared_ptr<const LocalPaths> paths, UniqueFd inotify, UniqueFd wake);

    // These run on the watcher thread only (and in Start before it begins);
    // `folders_` belongs to them and needs no lock.
    void Run();
    void ReadEvents();
    void HandleEvent(const inotify_event& event);
    void WatchTree(const std::string& key, int dirfd);
    bool WatchFolder(const std::string& key, int dirfd);
    void UnwatchTree(const std::string& key);
    void HandleOverflow();

    void Queue(Report::Kind kind, const std::string& folderKey, const std::string& name);
    // With mutex_ held: replaces the queue by one Refresh per folder in it.
    void CollapseLocked();

    const std::shared_ptr<const LocalPaths> paths_;
    const UniqueFd inotify_;
    const UniqueFd wake_;  // an eventfd that ends the thread's wait
    OwnChanges own_;
    std::unordered_map<int, std::string> folders_;  // watch descriptor -> folder key

    std::mutex mutex_;  // guards the queue below
    std::vector<Report> pending_;
    std::unordered_map<std::string, size_t> lastReport_;  // item key -> index in pending_
    std::unordered_set<std::string> refreshes_;           // folders with a queued Refresh

    std::mutex stopMutex_;
    std::thread thread_;
};

#endif  // SKARVO_REMOTES_CHANGE_WATCHER_H_
