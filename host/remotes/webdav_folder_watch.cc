#include "remotes/webdav_folder_watch.h"

#include "remotes/local_paths.h"

// Unknown folders get an entry too (their generation must survive until the
// listing comes back), but only known ones count towards kMaxFolders; the
// others are dropped whenever a known one is evicted, so the map stays small.
FolderWatch::Folder& FolderWatch::Find(const std::string& folderKey) {
    auto found = folders_.find(folderKey);
    if (found != folders_.end()) return found->second;
    Folder& folder = folders_[folderKey];
    folder.generation = nextGeneration_++;
    folder.use = order_.end();
    return folder;
}

uint64_t FolderWatch::Generation(const std::string& folderKey) {
    std::lock_guard<std::mutex> lock(mutex_);
    return Find(folderKey).generation;
}

std::vector<std::string> FolderWatch::Folders() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::vector<std::string>(order_.begin(), order_.end());
}

void FolderWatch::Store(const std::string& folderKey, uint64_t generation, Entries entries) {
    std::lock_guard<std::mutex> lock(mutex_);
    Folder& folder = Find(folderKey);
    if (folder.generation != generation) return;
    folder.entries = std::move(entries);
    folder.known = true;
    if (folder.use != order_.end()) order_.erase(folder.use);
    order_.push_front(folderKey);
    folder.use = order_.begin();
    while (order_.size() > kMaxFolders) {
        folders_.erase(order_.back());
        order_.pop_back();
    }
    // Entries of folders never listed (only their generation) go with it.
    if (folders_.size() > 4 * kMaxFolders) {
        for (auto it = folders_.begin(); it != folders_.end();) {
            it = it->second.known ? std::next(it) : folders_.erase(it);
        }
    }
}

std::vector<DavChange> FolderWatch::Compare(const std::string& folderKey, uint64_t generation,
                                            Entries entries) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<DavChange> changes;
    auto found = folders_.find(folderKey);
    if (found == folders_.end() || !found->second.known || found->second.generation != generation) {
        return changes;
    }
    Entries& known = found->second.entries;
    for (const auto& [name, state] : known) {
        auto now = entries.find(name);
        if (now == entries.end() || now->second.folder != state.folder) {
            changes.push_back({DavChange::Kind::kRemoved, name});
        }
    }
    for (const auto& [name, state] : entries) {
        auto before = known.find(name);
        if (before == known.end() || before->second.folder != state.folder) {
            changes.push_back({DavChange::Kind::kAdded, name});
        } else if (!(before->second == state)) {
            changes.push_back({DavChange::Kind::kChanged, name});
        }
    }
    known = std::move(entries);
    return changes;
}

void FolderWatch::Put(const std::string& folderKey, const std::string& name,
                      const DavItemState& state) {
    std::lock_guard<std::mutex> lock(mutex_);
    Folder& folder = Find(folderKey);
    folder.generation = nextGeneration_++;
    if (folder.known) folder.entries[name] = state;
}

void FolderWatch::Erase(const std::string& folderKey, const std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    Folder& folder = Find(folderKey);
    folder.generation = nextGeneration_++;
    folder.entries.erase(name);
}

void FolderWatch::Touch(const std::string& folderKey) {
    std::lock_guard<std::mutex> lock(mutex_);
    Find(folderKey).generation = nextGeneration_++;
}

void FolderWatch::Forget(const std::string& folderKey) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = folders_.begin(); it != folders_.end();) {
        if (!IsSameOrBelow(it->first, folderKey)) {
            ++it;
            continue;
        }
        if (it->second.use != order_.end()) order_.erase(it->second.use);
        it = folders_.erase(it);
    }
}
