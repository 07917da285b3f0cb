// A folder's children: adding, removing and finding them by name.
#include <vector>

#include "api/log.h"
#include "tree/file.h"

std::shared_ptr<File> File::AddChild(const _FS_FILE_V2* record, bool lock) {
    if (record == nullptr || !AcceptRecord(*record)) return nullptr;
    const std::string folded = FoldName(record->name);
    if (auto existing = GetFileWithNoFetch(record->name.c_str())) return existing;
    // Built before the child lock is taken: a new folder takes its own child
    // lock for its marker files, and a parent's lock must never be held while
    // a child's is taken.
    auto child = std::make_shared<File>(protocol_, fileSystem_, config_, record, this, notifier_);
    child->SetParent(this);
    std::unique_lock<std::recursive_mutex> guard(childLock_, std::defer_lock);
    if (lock) guard.lock();
    auto it = children_.emplace(folded, std::move(child)).first;
    childCount_ = children_.size();
    return it->second;
}

void File::AddChild(std::shared_ptr<File> node, bool lock) {
    if (!node) return;
    {
        std::unique_lock<std::recursive_mutex> guard(childLock_, std::defer_lock);
        if (lock) guard.lock();
        node->SetParent(this);
        children_[FoldName(node->Name())] = node;
        childCount_ = children_.size();
    }
    Notify(node->IsFolder() ? NE_MKDIR : NE_CREATE, node->BuildPath('\\'));
}

std::shared_ptr<File> File::RemoveChild(const char* name, bool lock) {
    if (name == nullptr) return nullptr;
    std::shared_ptr<File> removed;
    {
        std::unique_lock<std::recursive_mutex> guard(childLock_, std::defer_lock);
        if (lock) guard.lock();
        auto it = children_.find(FoldName(name));
        if (it == children_.end()) return nullptr;
        removed = it->second;
        children_.erase(it);
        childCount_ = children_.size();
    }
    Notify(NE_DELETE, removed->BuildPath('\\'));
    return removed;
}

std::shared_ptr<File> File::GetFileWithNoFetch(const char* name) {
    if (name == nullptr) return nullptr;
    std::lock_guard<std::recursive_mutex> guard(childLock_);
    auto it = children_.find(FoldName(name));
    return it == children_.end() ? nullptr : it->second;
}

void File::ClearChildrens() {
    std::lock_guard<std::recursive_mutex> guard(childLock_);
    for (auto& entry : children_)
        entry.second->ClearChildrens();
    children_.clear();
    childCount_ = 0;
}

size_t File::ChildCount() {
    return childCount_.load();
}

void File::CloseAllHandles() {
    handles_.CloseAllHandles();
    std::vector<std::shared_ptr<File>> children;
    {
        std::lock_guard<std::recursive_mutex> guard(childLock_);
        children.reserve(children_.size());
        for (auto& entry : children_)
            children.push_back(entry.second);
    }
    for (auto& child : children)
        child->CloseAllHandles();
}
