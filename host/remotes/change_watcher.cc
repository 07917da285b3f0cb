#include "remotes/change_watcher.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "remotes/local_record.h"

namespace {

// The events that matter for reports. IN_ONLYDIR refuses to watch anything
// but a folder; IN_EXCL_UNLINK ignores files that are already unlinked.
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                IN_CLOSE_WRITE | IN_ATTRIB | IN_MODIFY | IN_ONLYDIR |
                                IN_EXCL_UNLINK;
constexpr uint32_t kAddedMask = IN_CREATE | IN_MOVED_TO;
constexpr uint32_t kRemovedMask = IN_DELETE | IN_MOVED_FROM;
constexpr uint32_t kChangedMask = IN_CLOSE_WRITE | IN_ATTRIB | IN_MODIFY;

// Queued reports beyond which the queue collapses into folder refreshes.
constexpr size_t kMaxPending = 4096;
constexpr size_t kReadBufferSize = 64 * 1024;
// After reading, the thread lets events gather this long before it reads
// again. Without the pause it woke for nearly every event: a file the volume
// stores raises five or six (the temporary file's creation, writes and
// close, the rename), and while 5,000 small files were created the thread
// took 5% of the daemon's time. Reports are delivered only when the library
// asks for changes, so the pause delays nothing that anyone sees.
constexpr int kGatherMilliseconds = 50;

}  // namespace

ChangeWatcher::ChangeWatcher(std::shared_ptr<const LocalPaths> paths, UniqueFd inotify,
                             UniqueFd wake)
    : paths_(std::move(paths)), inotify_(std::move(inotify)), wake_(std::move(wake)) {}

ChangeWatcher::~ChangeWatcher() {
    Stop();
}

Status ChangeWatcher::Start(std::shared_ptr<const LocalPaths> paths,
                            std::unique_ptr<ChangeWatcher>* started) {
    auto fail = [](const std::string& text) { return Status::Error(text); };
    UniqueFd inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!inotify.Valid()) return fail("inotify is not available: " + ErrnoText(errno));
    UniqueFd wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!wake.Valid()) return fail("eventfd failed: " + ErrnoText(errno));
    UniqueFd root;
    Status status = paths->OpenFolder(kLocalRootKey, FILE_NOT_FOUND, &root);
    if (!status.ok()) return status;

    std::unique_ptr<ChangeWatcher> watcher(
        new ChangeWatcher(paths, std::move(inotify), std::move(wake)));
    if (!watcher->WatchFolder(kLocalRootKey, root.Get())) {
        return fail("cannot watch " + paths->Root() + ": " + ErrnoText(errno));
    }
    watcher->WatchTree(kLocalRootKey, root.Get());
    try {
        watcher->thread_ = std::thread(&ChangeWatcher::Run, watcher.get());
    } catch (const std::system_error& e) {
        return fail(std::string("cannot start the change watcher: ") + e.what());
    }
    *started = std::move(watcher);
    return Status::Ok();
}

void ChangeWatcher::Stop() {
    std::lock_guard<std::mutex> lock(stopMutex_);
    if (!thread_.joinable()) return;
    const uint64_t one = 1;
    if (write(wake_.Get(), &one, sizeof one) < 0) {
        // An eventfd write fails only when its counter is full, which still wakes the thread.
    }
    thread_.join();
}

void ChangeWatcher::Run() {
    pollfd fds[2] = {{inotify_.Get(), POLLIN, 0}, {wake_.Get(), POLLIN, 0}};
    std::vector<char> buffer(kReadBufferSize);
    while (true) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        while (true) {
            const ssize_t length = read(inotify_.Get(), buffer.data(), buffer.size());
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) break;  // EAGAIN: drained
            for (ssize_t offset = 0; offset < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
                HandleEvent(*event);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        // Waits on the stop signal alone, so that Stop still ends it at once.
        if (poll(&fds[1], 1, kGatherMilliseconds) > 0) return;
    }
}

void ChangeWatcher::HandleEvent(const inotify_event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        HandleOverflow();
        return;
    }
    const auto folder = folders_.find(event.wd);
    if (folder == folders_.end()) return;
    if ((event.mask & IN_IGNORED) != 0) {
        folders_.erase(folder);
        return;
    }
    // Events on a watched folder itself are reported by its parent's watch.
    if (event.len == 0) return;
    const std::string name(event.name);            // the kernel pads the name with NULs
    if (!IsValidItemName(name)) return;            // temporary upload files among them
    const std::string folderKey = folder->second;  // a copy: folders_ may change below
    const std::string key = JoinKey(folderKey, name);
    const bool isFolder = (event.mask & IN_ISDIR) != 0;

    auto report = [&](uint32_t bits, Report::Kind kind) {
        const uint32_t mine = event.mask & bits;
        if (mine != 0 && !own_.IsOwn(key, mine)) Queue(kind, folderKey, name);
    };
    if ((event.mask & kAddedMask) != 0) {
        if (isFolder) {
            // Watched before the report goes out, so whoever reacts to the
            // report and changes the new folder is seen.
            UniqueFd dir;
            if (paths_->OpenFolder(key, FILE_NOT_FOUND, &dir).ok()) WatchTree(key, dir.Get());
        }
        report(kAddedMask, Report::Kind::kAdded);
    }
    if ((event.mask & kRemovedMask) != 0) {
        if (isFolder) UnwatchTree(key);
        report(kRemovedMask, Report::Kind::kRemoved);
    }
    report(kChangedMask, Report::Kind::kChanged);
}

bool ChangeWatcher::WatchFolder(const std::string& key, int dirfd) {
    // The watch goes on the very folder that was opened without following
    // links, never on a path that could be swapped for a link meanwhile.
    const std::string path = "/proc/self/fd/" + std::to_string(dirfd);
    const int wd = inotify_add_watch(inotify_.Get(), path.c_str(), kWatchMask);
    if (wd < 0) return false;
    folders_[wd] = key;  // a folder seen again under a new key keeps its descriptor
    return true;
}

void ChangeWatcher::WatchTree(const std::string& key, int dirfd) {
    if (!WatchFolder(key, dirfd)) return;
    std::vector<LocalEntry> items;
    if (!LocalPaths::ReadItems(dirfd, key, &items).ok()) return;
    for (const LocalEntry& item : items) {
        if (!S_ISDIR(item.st.st_mode)) continue;
        const std::string childKey = JoinKey(key, item.name);
        UniqueFd child;
        if (LocalPaths::OpenSubfolder(dirfd, item.name, childKey, FILE_NOT_FOUND, INVALID_DIRECTORY,
                                      &child)
                .ok()) {
            WatchTree(childKey, child.Get());
        }
    }
}

void ChangeWatcher::UnwatchTree(const std::string& key) {
    for (auto it = folders_.begin(); it != folders_.end();) {
        if (IsSameOrBelow(it->second, key)) {
            inotify_rm_watch(inotify_.Get(), it->first);
            it = folders_.erase(it);
        } else {
            ++it;
        }
    }
}

void ChangeWatcher::HandleOverflow() {
    // Events were lost: watch whatever folders were missed and have every
    // watched folder listed again.
    UniqueFd root;
    if (paths_->OpenFolder(kLocalRootKey, FILE_NOT_FOUND, &root).ok()) {
        WatchTree(kLocalRootKey, root.Get());
    }
    std::vector<std::string> keys;
    keys.reserve(folders_.size());
    for (const auto& [wd, key] : folders_)
        keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.clear();
    lastReport_.clear();
    refreshes_.clear();
    for (std::string& key : keys) {
        refreshes_.insert(key);
        pending_.push_back(Report{Report::Kind::kRefresh, std::move(key), std::string()});
    }
}

void ChangeWatcher::Queue(Report::Kind kind, const std::string& folderKey,
                          const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A queued Refresh lists the folder after this change anyway.
    if (refreshes_.count(folderKey) != 0) return;
    const std::string key = JoinKey(folderKey, name);
    const auto last = lastReport_.find(key);
    if (last != lastReport_.end()) {
        const Report::Kind previous = pending_[last->second].kind;
        if (previous == kind) return;
        if (kind == Report::Kind::kChanged && previous == Report::Kind::kAdded) return;
    }
    lastReport_[key] = pending_.size();
    pending_.push_back(Report{kind, folderKey, name});
    if (pending_.size() > kMaxPending) CollapseLocked();
}

void ChangeWatcher::CollapseLocked() {
    std::vector<Report> reports;
    reports.swap(pending_);
    lastReport_.clear();
    refreshes_.clear();
    for (Report& report : reports) {
        if (refreshes_.insert(report.folderKey).second) {
            pending_.push_back(
                Report{Report::Kind::kRefresh, std::move(report.folderKey), std::string()});
        }
    }
}

void ChangeWatcher::Deliver(IFileChanges* sink) {
    std::vector<Report> reports;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reports.swap(pending_);
        lastReport_.clear();
        refreshes_.clear();
    }
    for (const Report& report : reports) {
        const char* folderKey = report.folderKey.c_str();
        switch (report.kind) {
            case Report::Kind::kAdded:
            case Report::Kind::kChanged: {
                // Items gone or hidden since the event are left to their own reports.
                const std::string key = JoinKey(report.folderKey, report.name);
                _FS_FILE_V2 record;
                if (!ReadRecord(*paths_, key, &record).ok()) break;
                if (report.kind == Report::Kind::kAdded) {
                    sink->Added(folderKey, &record);
                } else {
                    sink->Changed(key.c_str(), &record);
                }
                break;
            }
            case Report::Kind::kRemoved:
                sink->Removed(folderKey, report.name.c_str());
                break;
            case Report::Kind::kRefresh:
                sink->Refresh(folderKey);
                break;
        }
    }
}
