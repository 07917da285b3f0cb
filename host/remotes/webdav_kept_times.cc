#include "remotes/webdav_kept_times.h"

#include <vector>

#include "remotes/local_paths.h"

void KeptTimes::Set(const std::string& key, const std::string& etag,
                    const std::string& modifyTime) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (etag.empty()) return;
    if (kept_.size() >= kMaxFiles && kept_.count(key) == 0) kept_.erase(kept_.begin());
    kept_[key] = Kept{etag, modifyTime};
}

void KeptTimes::Apply(const std::string& key, _FS_FILE_V2* record) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = kept_.find(key);
    if (found == kept_.end()) return;
    if (found->second.etag != record->extra) {
        kept_.erase(found);  // changed since: the server's time is the truth
        return;
    }
    record->modifyTime = found->second.modifyTime;
    record->accessTime = found->second.modifyTime;
    record->createTime = found->second.modifyTime;
}

void KeptTimes::Moved(const std::string& from, const std::string& to) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::pair<std::string, Kept>> moved;
    for (auto it = kept_.begin(); it != kept_.end();) {
        if (!IsSameOrBelow(it->first, from)) {
            ++it;
            continue;
        }
        moved.emplace_back(to + it->first.substr(from.size()), it->second);
        it = kept_.erase(it);
    }
    for (auto& entry : moved)
        kept_[entry.first] = std::move(entry.second);
}

void KeptTimes::Removed(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = kept_.begin(); it != kept_.end();)
        it = IsSameOrBelow(it->first, key) ? kept_.erase(it) : std::next(it);
}
