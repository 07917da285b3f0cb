#include "tree/key_index.h"

#include "tree/file.h"

void KeyIndex::Add(const std::string& key, std::shared_ptr<File> file) {
    std::lock_guard<std::mutex> lock(lock_);
    nodes_[key] = std::move(file);
}

void KeyIndex::Remove(const std::string& key) {
    std::lock_guard<std::mutex> lock(lock_);
    nodes_.erase(key);
}

std::shared_ptr<File> KeyIndex::Find(const std::string& key) {
    std::lock_guard<std::mutex> lock(lock_);
    auto it = nodes_.find(key);
    if (it == nodes_.end()) return nullptr;
    auto node = it->second.lock();
    // An entry left by a node that was renamed or moved since names
    // another item now: it is dropped, never applied to the wrong node.
    if (!node || (node->RemoteKey() != key && node->Key() != key)) {
        nodes_.erase(it);
        return nullptr;
    }
    return node;
}

void KeyIndex::Clear() {
    std::lock_guard<std::mutex> lock(lock_);
    nodes_.clear();
}
