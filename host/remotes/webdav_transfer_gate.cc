#include "remotes/webdav_transfer_gate.h"

#include <utility>

#include "remotes/local_paths.h"

TransferGate::Pass::Pass(TransferGate* gate, std::multiset<std::string>* held, std::string key,
                         bool waitedOut)
    : gate_(gate), held_(held), key_(std::move(key)), waitedOut_(waitedOut) {}

TransferGate::Pass::Pass(Pass&& other) noexcept
    : gate_(std::exchange(other.gate_, nullptr)),
      held_(other.held_),
      key_(std::move(other.key_)),
      waitedOut_(other.waitedOut_) {}

TransferGate::Pass::~Pass() {
    if (gate_ != nullptr) gate_->Leave(held_, key_);
}

bool TransferGate::AnyAtOrAbove(const std::multiset<std::string>& folders, const std::string& key) {
    for (const std::string& folder : folders) {
        if (IsSameOrBelow(key, folder)) return true;
    }
    return false;
}

bool TransferGate::AnyAtOrBelow(const std::multiset<std::string>& uploads, const std::string& key) {
    for (const std::string& upload : uploads) {
        if (IsSameOrBelow(upload, key)) return true;
    }
    return false;
}

TransferGate::Pass TransferGate::Upload(const std::string& key) {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool clear =
        changed_.wait_for(lock, limit_, [&] { return !AnyAtOrAbove(folders_, key); });
    uploads_.insert(key);
    return Pass(this, &uploads_, key, !clear);
}

TransferGate::Pass TransferGate::Folder(const std::string& key) {
    std::unique_lock<std::mutex> lock(mutex_);
    // Taken at once, so that no new PUT starts below the folder meanwhile.
    folders_.insert(key);
    const bool clear =
        changed_.wait_for(lock, limit_, [&] { return !AnyAtOrBelow(uploads_, key); });
    return Pass(this, &folders_, key, !clear);
}

void TransferGate::Leave(std::multiset<std::string>* held, const std::string& key) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = held->find(key);
        if (it != held->end()) held->erase(it);
    }
    changed_.notify_all();
}
