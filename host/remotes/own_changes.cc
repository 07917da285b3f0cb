#include "remotes/own_changes.h"

#include <algorithm>

#include "remotes/local_paths.h"

void OwnChanges::Expect(const std::string& key, uint32_t mask, bool subtree) {
    const Clock::time_point expires = Clock::now() + window_;
    std::lock_guard<std::mutex> lock(mutex_);
    for (Entry& entry : entries_) {
        if (entry.key == key && entry.subtree == subtree) {
            entry.mask |= mask;
            entry.expires = expires;
            return;
        }
    }
    entries_.push_back(Entry{key, mask, subtree, expires});
}

bool OwnChanges::IsOwn(const std::string& key, uint32_t mask) {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [&](const Entry& entry) { return entry.expires < now; }),
                   entries_.end());
    for (const Entry& entry : entries_) {
        if ((entry.mask & mask) == 0) continue;
        if (entry.key == key || (entry.subtree && IsSameOrBelow(key, entry.key))) return true;
    }
    return false;
}
