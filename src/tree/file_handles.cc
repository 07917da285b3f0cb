#include "tree/file_handles.h"

#include <vector>

#include "services/log.h"
#include "tree/file.h"

namespace {

std::string NodePath(const std::shared_ptr<File>& file) {
    return file ? file->BuildPathA('/') : std::string("null");
}

}  // namespace

FileHandles::FileHandles() {
    handles_.max_load_factor(1.0);
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::Open(std::shared_ptr<File> file, uint32_t mode) {
    auto record = std::shared_ptr<_FS_HANDLE_EXT>(NewHandle());
    record->mode = mode;
    record->file = std::move(file);
    std::lock_guard<std::mutex> lock(lock_);
    handles_[record.get()] = record;
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
    std::lock_guard<std::mutex> lock(lock_);
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
    handles_[copy.get()] = source;
    return copy;
}

std::shared_ptr<_FS_HANDLE_EXT> FileHandles::GetHandle(void* key) {
    std::lock_guard<std::mutex> lock(lock_);
    auto it = handles_.find(key);
    return it == handles_.end() ? nullptr : it->second;
}

bool FileHandles::CloseHandle(void* key) {
    std::lock_guard<std::mutex> lock(lock_);
    auto it = handles_.find(key);
    if (it == handles_.end()) return false;
    const auto& record = it->second;
    record->state = HANDLE_STATE_CLOSED;
    if (record->mode == HANDLE_MODE_WRITE) {
        const uint64_t count = --writeCount_;
        __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] Decrease WriteCount %s, %d",
                 NodePath(record->file).c_str(), static_cast<int>(count));
    }
    handles_.erase(it);
    return true;
}

void FileHandles::CloseAllHandles() {
    std::vector<void*> keys;
    {
        std::lock_guard<std::mutex> lock(lock_);
        keys.reserve(handles_.size());
        for (const auto& entry : handles_)
            keys.push_back(entry.first);
    }
    for (void* key : keys)
        CloseHandle(key);
}

int FileHandles::CountExcept(const std::string& process) {
    std::lock_guard<std::mutex> lock(lock_);
    int count = 0;
    for (const auto& entry : handles_) {
        if (entry.second->process != process) ++count;
    }
    return count;
}

bool FileHandles::HasAnyOpened() {
    std::lock_guard<std::mutex> lock(lock_);
    for (const auto& entry : handles_) {
        if (entry.second->IsOpen()) return true;
    }
    return false;
}
