// A folder's children: adding, removing and finding them by name.
#include <vector>

#include "services/log.h"
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
    std::unique_lock<std::recursive_mutex> guard(children_.lock, std::defer_lock);
    if (lock) guard.lock();
    auto it = children_.map.emplace(folded, std::move(child)).first;
    children_.count = children_.map.size();
    return it->second;
}

void File::AddChild(std::shared_ptr<File> node, bool lock) {
    if (!node) return;
    {
        std::unique_lock<std::recursive_mutex> guard(children_.lock, std::defer_lock);
        if (lock) guard.lock();
        node->SetParent(this);
        children_.map[FoldName(node->Name())] = node;
        children_.count = children_.map.size();
    }
    Notify(node->IsFolder() ? NE_MKDIR : NE_CREATE, node->BuildPath('\\'));
}

std::shared_ptr<File> File::RemoveChild(const char* name, bool lock) {
    if (name == nullptr) return nullptr;
    std::shared_ptr<File> removed;
    {
        std::unique_lock<std::recursive_mutex> guard(children_.lock, std::defer_lock);
        if (lock) guard.lock();
        auto it = children_.map.find(FoldName(name));
        if (it == children_.map.end()) return nullptr;
        removed = it->second;
        children_.map.erase(it);
        children_.count = children_.map.size();
    }
    Notify(NE_DELETE, removed->BuildPath('\\'));
    return removed;
}

std::shared_ptr<File> File::GetFileWithNoFetch(const char* name) {
    if (name == nullptr) return nullptr;
    std::lock_guard<std::recursive_mutex> guard(children_.lock);
    auto it = children_.map.find(FoldName(name));
    return it == children_.map.end() ? nullptr : it->second;
}

void File::ClearChildrens() {
    std::lock_guard<std::recursive_mutex> guard(children_.lock);
    for (auto& entry : children_.map)
        entry.second->ClearChildrens();
    children_.map.clear();
    children_.count = 0;
}

size_t File::ChildCount() {
    return children_.count.load();
}

void File::CloseAllHandles() {
    handles_.CloseAllHandles();
    std::vector<std::shared_ptr<File>> children;
    {
        std::lock_guard<std::recursive_mutex> guard(children_.lock);
        children.reserve(children_.map.size());
        for (auto& entry : children_.map)
            children.push_back(entry.second);
    }
    for (auto& child : children)
        child->CloseAllHandles();
}
