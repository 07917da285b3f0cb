#include "tree/file_handles.h"

#include <vector>

#include "services/log.h"
#include "tree/file.h"

namespace {

std::string NodePath(const std::shared_ptr<File>& file) {
    return file ? file->BuildPathA('/') : std::string("null");
}

}  // namespace

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::Open(std::shared_ptr<File> file, uint32_t mode) {
    auto record = std::shared_ptr<_FS_HANDLE_EXT>(NewHandle());
    record->mode = mode;
    record->file = std::move(file);
    Table& table = table_.Get();
    std::lock_guard<std::mutex> lock(table.lock);
    table.handles[record.get()] = record;
    return record;
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::OpenHandleRead(std::shared_ptr<File> file) {
    return Open(std::move(file), HANDLE_MODE_READ);
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::OpenHandleWrite(std::shared_ptr<File> file) {
    auto record = Open(file, HANDLE_MODE_WRITE);
    const uint64_t count = ++writeCount_;
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] Increase WriteCount %s, %d",
             NodePath(file).c_str(), static_cast<int>(count));
    return record;
}

_FS_HANDLE_EXT* FileHandles::NewHandle() {
    return new _FS_HANDLE_EXT();
}

void FileHandles::CopyOwner(_FS_HANDLE_EXT& to, const _FS_HANDLE_EXT& from) {
    to.context = from.context;
    to.id = from.id;
    to.file = from.file;
    to.process = from.process;
    to.path = from.path;
    to.flags = from.flags;
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::DupHandle(std::shared_ptr<_FS_HANDLE_EXT> source) {
    if (!source) return nullptr;
    Table& table = table_.Get();
    std::lock_guard<std::mutex> lock(table.lock);
    auto copy = std::shared_ptr<_FS_HANDLE_EXT>(NewHandle());
    copy->mode = source->mode;
    CopyOwner(*copy, *source);
    copy->writeOffset = source->writeOffset.load();
    copy->consumed = source->consumed.load();
    copy->fetchMark = source->fetchMark.load();
    copy->originKind = source->originKind;
    copy->originText = source->originText;
    copy->state = HANDLE_STATE_OPEN;
    copy->reservedPosition = -1;
    copy->lastPosition = -1;
    if (copy->mode == HANDLE_MODE_WRITE) {
        const uint64_t count = ++writeCount_;
        __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] Increase WriteCount %s, %d",
                 NodePath(source->file).c_str(), static_cast<int>(count));
    }
    table.handles[copy.get()] = source;
    return copy;
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::GetHandle(void* key) {
    Table* table = table_.Peek();
    if (table == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(table->lock);
    auto it = table->handles.find(key);
    return it == table->handles.end() ? nullptr : it->second;
}

bool FileHandles::CloseHandle(void* key) {
    Table* table = table_.Peek();
    if (table == nullptr) return false;
    std::lock_guard<std::mutex> lock(table->lock);
    auto it = table->handles.find(key);
    if (it == table->handles.end()) return false;
    const auto& record = it->second;
    record->state = HANDLE_STATE_CLOSED;
    if (record->mode == HANDLE_MODE_WRITE) {
        const uint64_t count = --writeCount_;
        __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] Decrease WriteCount %s, %d",
                 NodePath(record->file).c_str(), static_cast<int>(count));
    }
    table->handles.erase(it);
    return true;
}

void FileHandles::CloseAllHandles() {
    Table* table = table_.Peek();
    if (table == nullptr) return;
    std::vector<void*> keys;
    {
        std::lock_guard<std::mutex> lock(table->lock);
        keys.reserve(table->handles.size());
        for (const auto& entry : table->handles)
            keys.push_back(entry.first);
    }
    for (void* key : keys)
        CloseHandle(key);
}

int FileHandles::CountExcept(const std::string& process) {
    Table* table = table_.Peek();
    if (table == nullptr) return 0;
    std::lock_guard<std::mutex> lock(table->lock);
    int count = 0;
    for (const auto& entry : table->handles) {
        if (entry.second->process != process) ++count;
    }
    return count;
}

bool FileHandles::HasAnyOpened() {
    Table* table = table_.Peek();
    if (table == nullptr) return false;
    std::lock_guard<std::mutex> lock(table->lock);
    for (const auto& entry : table->handles) {
        if (entry.second->IsOpen()) return true;
    }
    return false;
}
