#include "remotes/own_changes.h"

#include "remotes/local_paths.h"

void OwnChanges::Expect(const std::string& key, uint32_t mask, bool subtree) {
    const Clock::time_point expires = Clock::now() + window_;
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& entry = (subtree ? subtrees_ : items_)[key];
    entry.mask |= mask;
    entry.expires = expires;
    expiries_.push_back(Expiry{expires, key, subtree});
}

void OwnChanges::ExpireLocked(Clock::time_point now) {
    while (!expiries_.empty() && expiries_.front().expires < now) {
        const Expiry& oldest = expiries_.front();
        Entries& entries = oldest.subtree ? subtrees_ : items_;
        const auto found = entries.find(oldest.key);
        // Announced again since: it lives on until its later expiry.
        if (found != entries.end() && found->second.expires == oldest.expires) {
            entries.erase(found);
        }
        expiries_.pop_front();
    }
}

bool OwnChanges::IsOwn(const std::string& key, uint32_t mask) {
    std::lock_guard<std::mutex> lock(mutex_);
    ExpireLocked(Clock::now());
    const auto item = items_.find(key);
    if (item != items_.end() && (item->second.mask & mask) != 0) return true;
    // Folders moved or deleted as a whole are few.
    for (const auto& [folder, entry] : subtrees_) {
        if ((entry.mask & mask) != 0 && IsSameOrBelow(key, folder)) return true;
    }
    return false;
}
