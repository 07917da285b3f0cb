#include "remotes/webdav_own_etags.h"

#include <algorithm>

std::string OwnEtags::Current(const std::string& key, const std::string& etag) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = chains_.find(key);
    if (found == chains_.end() || etag.empty()) return etag;
    const Chain& chain = found->second;
    const bool ours =
        std::find(chain.replaced.begin(), chain.replaced.end(), etag) != chain.replaced.end();
    return ours ? chain.latest : etag;
}

void OwnEtags::Stored(const std::string& key, const std::string& before, const std::string& after) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = chains_.find(key);
    if (found == chains_.end() && chains_.size() >= kMaxFiles) chains_.erase(chains_.begin());
    Chain& chain = chains_[key];
    if (before.empty() || before != chain.latest) chain.replaced.clear();
    if (!before.empty()) chain.replaced.push_back(before);
    while (chain.replaced.size() > kMaxChain)
        chain.replaced.pop_front();
    chain.latest = after;
}

void OwnEtags::Moved(const std::string& from, const std::string& to) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = chains_.find(from);
    if (found == chains_.end()) return;
    Chain chain = std::move(found->second);
    chains_.erase(found);
    chains_[to] = std::move(chain);
}

void OwnEtags::Removed(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    chains_.erase(key);
}

std::string OwnEtags::Latest(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = chains_.find(key);
    return found == chains_.end() ? std::string() : found->second.latest;
}
