#include "support/memory_protocol.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

namespace {

// Unix seconds as "YYYY-MM-DDTHH:MM:SS.000Z".
std::string FormatTime(std::time_t seconds) {
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S.000Z", &parts));
}

std::string Now() {
    return FormatTime(std::time(nullptr));
}

void Fill(const _FS_FILE_V2& from, _FS_FILE_V2* to) {
    if (to != nullptr) *to = from;
}

}  // namespace

MemoryProtocol::MemoryProtocol(std::string identity) : identity_(std::move(identity)) {
    Item& root = items_[rootKey_];
    root.key = rootKey_;
    root.folder = true;
    root.createTime = root.accessTime = root.modifyTime = kDefaultTime;
}

MemoryProtocol::~MemoryProtocol() {
    // Unreleased cookies fail the fixture's check; free them so that leak
    // checkers report only real leaks.
    for (void* cookie : liveCookies_)
        delete static_cast<AERROR*>(cookie);
}

// ---- Internal helpers (caller holds mu_) ----

MemoryProtocol::Item* MemoryProtocol::Find(const std::string& key) {
    auto it = items_.find(key);
    return it == items_.end() ? nullptr : &it->second;
}

MemoryProtocol::Item* MemoryProtocol::ParentOf(const std::string& path, std::string* name,
                                               bool create) {
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= path.size();) {
        std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    if (parts.empty()) return nullptr;
    *name = parts.back();
    parts.pop_back();
    Item* folder = Find(rootKey_);
    for (const std::string& part : parts) {
        auto child = folder->children.find(part);
        if (child != folder->children.end()) {
            folder = Find(child->second);
        } else if (create) {
            folder = &NewItem(folder, part, true, kDefaultTime);
        } else {
            return nullptr;
        }
        if (!folder->folder) return nullptr;
    }
    return folder;
}

MemoryProtocol::Item* MemoryProtocol::FindPath(const std::string& path) {
    std::string name;
    Item* folder = ParentOf(path, &name, false);
    if (folder == nullptr)
        return path.find_first_not_of('/') == std::string::npos ? Find(rootKey_) : nullptr;
    auto child = folder->children.find(name);
    return child == folder->children.end() ? nullptr : Find(child->second);
}

MemoryProtocol::Item& MemoryProtocol::NewItem(Item* parent, const std::string& name, bool folder,
                                              const std::string& time) {
    const std::string key = "k" + std::to_string(nextKey_++);
    parent->children[name] = key;
    Item& item = items_[key];
    item.key = key;
    item.name = name;
    item.folder = folder;
    item.createTime = item.accessTime = item.modifyTime = time;
    item.parentKey = parent->key;
    return item;
}

void MemoryProtocol::Unlink(Item* item) {
    Find(item->parentKey)->children.erase(item->name);
    std::vector<std::string> doomed = {item->key};
    for (std::size_t i = 0; i < doomed.size(); ++i) {
        for (const auto& child : Find(doomed[i])->children)
            doomed.push_back(child.second);
    }
    for (const std::string& key : doomed)
        items_.erase(key);
}

_FS_FILE_V2 MemoryProtocol::RecordOf(const Item& item) {
    _FS_FILE_V2 record;
    record.key = item.key;
    record.attributes = item.folder ? FILE_ATTRIBUTE_FOLDER : FILE_ATTRIBUTE_FILE;
    record.size = item.folder ? 0 : static_cast<int64_t>(item.contents.size());
    record.createTime = item.createTime;
    record.accessTime = item.accessTime;
    record.modifyTime = item.modifyTime;
    record.name = item.name;
    return record;
}

bool MemoryProtocol::ValidName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

void* MemoryProtocol::NewCookie() {
    void* cookie = new AERROR(FAILED);
    liveCookies_.insert(cookie);
    return cookie;
}

template <typename Body>
AERROR MemoryProtocol::Run(Op op, void** cookie, Body body) {
    if (cookie != nullptr) *cookie = nullptr;
    std::chrono::milliseconds delay{0};
    {
        std::lock_guard<std::mutex> lock(mu_);
        ++calls_[op];
        delay = delay_;
    }
    std::this_thread::sleep_for(delay);
    AERROR rc = SUCCESS;
    {
        std::unique_lock<std::mutex> lock(mu_);
        if (paused_.count(op) != 0) {
            ++waiting_[op];
            pauseCv_.notify_all();
            pauseCv_.wait(lock, [&] { return paused_.count(op) == 0; });
            --waiting_[op];
        }
        auto failure = failures_.find(op);
        if (failure != failures_.end()) {
            rc = failure->second.code;
            if (failure->second.remaining > 0 && --failure->second.remaining == 0)
                failures_.erase(failure);
        }
    }
    if (rc == SUCCESS) rc = body();
    if (rc != SUCCESS && cookie != nullptr) {
        std::lock_guard<std::mutex> lock(mu_);
        *cookie = NewCookie();
    }
    return rc;
}

// ---- Tree setup and inspection ----

std::string MemoryProtocol::AddFolder(const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    std::string name;
    Item* parent = ParentOf(path, &name, true);
    if (parent == nullptr) return "";
    auto child = parent->children.find(name);
    if (child == parent->children.end()) return NewItem(parent, name, true, kDefaultTime).key;
    return Find(child->second)->folder ? child->second : "";
}

std::string MemoryProtocol::AddFile(const std::string& path, const std::string& contents,
                                    const std::string& modifyTime) {
    std::lock_guard<std::mutex> lock(mu_);
    std::string name;
    Item* parent = ParentOf(path, &name, true);
    if (parent == nullptr) return "";
    auto child = parent->children.find(name);
    Item* file = child == parent->children.end() ? &NewItem(parent, name, false, modifyTime)
                                                 : Find(child->second);
    if (file->folder) return "";
    file->createTime = file->accessTime = file->modifyTime = modifyTime;
    file->contents = contents;
    return file->key;
}

bool MemoryProtocol::GetContents(const std::string& path, std::string* out) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    if (item == nullptr || item->folder) return false;
    *out = item->contents;
    return true;
}

bool MemoryProtocol::Exists(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    return FindPath(path) != nullptr;
}

// ---- Remote-side changes ----

bool MemoryProtocol::RemoteAdd(const std::string& path, const std::string& contents) {
    std::lock_guard<std::mutex> lock(mu_);
    std::string name;
    Item* parent = ParentOf(path, &name, false);
    if (parent == nullptr || parent->children.count(name) != 0) return false;
    Item& item = NewItem(parent, name, false, Now());
    item.contents = contents;
    changes_.push_back([key = parent->key, record = RecordOf(item)](IFileChanges* sink) mutable {
        sink->Added(key.c_str(), &record);
    });
    return true;
}

bool MemoryProtocol::RemoteRemove(const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(path);
    if (item == nullptr || item->parentKey.empty()) return false;
    changes_.push_back([key = item->parentKey, name = item->name](IFileChanges* sink) {
        sink->Removed(key.c_str(), name.c_str());
    });
    Unlink(item);
    return true;
}

bool MemoryProtocol::RemoteChange(const std::string& path, const std::string& contents) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(path);
    if (item == nullptr || item->folder) return false;
    item->contents = contents;
    item->modifyTime = item->accessTime = Now();
    changes_.push_back([key = item->key, record = RecordOf(*item)](IFileChanges* sink) mutable {
        sink->Changed(key.c_str(), &record);
    });
    return true;
}

bool MemoryProtocol::QueueRefresh(const std::string& folderPath) {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* folder = FindPath(folderPath);
    if (folder == nullptr || !folder->folder) return false;
    changes_.push_back([key = folder->key](IFileChanges* sink) { sink->Refresh(key.c_str()); });
    return true;
}

// ---- Switches and counters ----

bool MemoryProtocol::WaitForPaused(Op op, int count) const {
    std::unique_lock<std::mutex> lock(mu_);
    return pauseCv_.wait_for(lock, std::chrono::seconds(10), [&] {
        auto it = waiting_.find(op);
        return it != waiting_.end() && it->second >= count;
    });
}

// ---- IProtocol_V2 ----

AERROR MemoryProtocol::GetIdentity(char* buffer, unsigned long length) {
    if (length < identity_.size() + 1) return INSUFFICIENT_BUFFER;
    std::memcpy(buffer, identity_.c_str(), identity_.size() + 1);
    return SUCCESS;
}

AERROR MemoryProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
    return Run(Op::GetQuota, nullptr, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        *total = quotaTotal_;
        *used = quotaUsed_;
        return SUCCESS;
    });
}

AERROR MemoryProtocol::GetItem(const char* key, _FS_FILE_V2* record, void** cookie) {
    return Run(Op::GetItem, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        const Item* item = Find(key);
        if (item == nullptr) return FILE_NOT_FOUND;
        Fill(RecordOf(*item), record);
        return SUCCESS;
    });
}

AERROR MemoryProtocol::Download(const char* key, long long offset, long long size,
                                std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                                void** cookie) {
    return Run(Op::Download, cookie, [&] {
        std::string data;
        std::size_t piece = 0;
        {
            std::lock_guard<std::mutex> lock(mu_);
            piece = pieceSize_;
            const Item* item = Find(key);
            if (item == nullptr) return FILE_NOT_FOUND;
            if (item->folder || offset < 0 || size < 0) return INVALID_PARAMETER;
            // A range past the end is cut to the end.
            if (static_cast<std::size_t>(offset) < item->contents.size())
                data = item->contents.substr(offset, size);
        }
        for (std::size_t pos = 0; pos < data.size(); pos += piece) {
            if (handle && handle->IsClosing()) return READ_CANCELED;
            const long n = static_cast<long>(std::min(piece, data.size() - pos));
            long written = 0;
            const AERROR sent = callback->FetchWrite(offset + pos, data.data() + pos, n, &written);
            if (sent != SUCCESS) return sent;
            // The receiver took less than it was given: the transfer is broken.
            if (written != n) return FAILED;
        }
        return SUCCESS;
    });
}

AERROR MemoryProtocol::ListFolder(const char* key, IFileList* sink, void** cookie) {
    return Run(Op::ListFolder, cookie, [&] {
        std::vector<_FS_FILE_V2> records;
        {
            std::lock_guard<std::mutex> lock(mu_);
            const Item* folder = Find(key);
            if (folder == nullptr) return FILE_NOT_FOUND;
            if (!folder->folder) return INVALID_DIRECTORY;
            for (const auto& child : folder->children)
                records.push_back(RecordOf(*Find(child.second)));
        }
        for (const _FS_FILE_V2& record : records) {
            const AERROR rc = sink->AddFile(&record);
            if (rc != SUCCESS) return rc;
        }
        return SUCCESS;
    });
}

AERROR MemoryProtocol::GetChanges(IFileChanges* sink, void** cookie) {
    return Run(Op::GetChanges, cookie, [&] {
        const auto changes = Locked([&] { return std::exchange(changes_, {}); });
        for (const auto& report : changes)
            report(sink);
        return SUCCESS;
    });
}

AERROR MemoryProtocol::RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    return Run(Op::RenameItem, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = Find(key);
        if (item == nullptr) return FILE_NOT_FOUND;
        if (item->parentKey.empty()) return ACCESS_DENIED;
        if (item->parentKey != parentKey) return INVALID_PARAMETER;
        if (!ValidName(record->name)) return INVALID_NAME;
        if (record->name != item->name) {
            Item* parent = Find(item->parentKey);
            if (parent->children.count(record->name) != 0) return ALREADY_EXISTS;
            parent->children.erase(item->name);
            item->name = record->name;
            parent->children[item->name] = item->key;
        }
        Fill(RecordOf(*item), record);
        return SUCCESS;
    });
}

AERROR MemoryProtocol::MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                void** cookie) {
    return Run(Op::MoveItem, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        return MoveLocked(key, newParentKey, false, record);
    });
}

AERROR MemoryProtocol::MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    return Run(Op::MoveFolder, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        return MoveLocked(key, newParentKey, true, record);
    });
}

AERROR MemoryProtocol::MoveLocked(const char* key, const char* newParentKey, bool folder,
                                  _FS_FILE_V2* record) {
    Item* item = Find(key);
    Item* target = Find(newParentKey);
    if (item == nullptr) return FILE_NOT_FOUND;
    if (item->parentKey.empty()) return ACCESS_DENIED;
    if (item->folder != folder) return INVALID_PARAMETER;
    if (target == nullptr) return PATH_NOT_FOUND;
    if (!target->folder) return INVALID_DIRECTORY;
    for (const Item* at = target; at->key != rootKey_; at = Find(at->parentKey)) {
        if (at == item) return INVALID_PARAMETER;  // into itself
    }
    if (target->key != item->parentKey) {
        if (target->children.count(item->name) != 0) return ALREADY_EXISTS;
        Find(item->parentKey)->children.erase(item->name);
        item->parentKey = target->key;
        target->children[item->name] = item->key;
    }
    Fill(RecordOf(*item), record);
    return SUCCESS;
}

AERROR MemoryProtocol::CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) {
    return Run(Op::CreateFolder, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        Item* parent = Find(parentKey);
        if (parent == nullptr) return PATH_NOT_FOUND;
        if (!parent->folder) return INVALID_DIRECTORY;
        if (!ValidName(record->name)) return INVALID_NAME;
        if (parent->children.count(record->name) != 0) return ALREADY_EXISTS;
        Fill(RecordOf(NewItem(parent, record->name, true, Now())), record);
        return SUCCESS;
    });
}

AERROR MemoryProtocol::DeleteItem(const _FS_FILE_V2* record, void** cookie) {
    return Run(Op::DeleteItem, cookie, [&] { return Delete(record->key, false); });
}

AERROR MemoryProtocol::DeleteFolder(const _FS_FILE_V2* record, void** cookie) {
    return Run(Op::DeleteFolder, cookie, [&] { return Delete(record->key, true); });
}

AERROR MemoryProtocol::Delete(const std::string& key, bool folder) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = Find(key);
    if (item == nullptr) return FILE_NOT_FOUND;
    if (item->folder != folder) return INVALID_PARAMETER;
    if (item->parentKey.empty()) return ACCESS_DENIED;  // the root
    Unlink(item);
    return SUCCESS;
}

AERROR MemoryProtocol::UploadTarget(const std::string& parentKey, const _FS_FILE_V2& record,
                                    Item** target, Item** folder) {
    *target = *folder = nullptr;
    if (!record.key.empty()) {
        *target = Find(record.key);
        if (*target == nullptr) return FILE_NOT_FOUND;
        return (*target)->folder ? INVALID_PARAMETER : SUCCESS;
    }
    Item* parent = Find(parentKey);
    if (parent == nullptr) return PATH_NOT_FOUND;
    if (!parent->folder) return INVALID_DIRECTORY;
    if (!ValidName(record.name)) return INVALID_NAME;
    auto existing = parent->children.find(record.name);
    if (existing == parent->children.end()) {
        *folder = parent;
        return SUCCESS;
    }
    *target = Find(existing->second);  // a same-name file is replaced
    return (*target)->folder ? ALREADY_EXISTS : SUCCESS;
}

AERROR MemoryProtocol::UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                                  ICacheIO* source, _FS_FILE_V2* record,
                                  const _TRANSFERPROGRESS* progress, void** cookie) {
    return Run(Op::UploadItem, cookie, [&] {
        const _FS_FILE_V2 request = *record;
        if (request.size < 0) return INVALID_PARAMETER;
        std::size_t piece = 0;
        Item* target = nullptr;
        Item* folder = nullptr;
        {
            std::lock_guard<std::mutex> lock(mu_);
            const AERROR rc = UploadTarget(parentKey, request, &target, &folder);
            if (rc != SUCCESS) return rc;
            piece = pieceSize_;
        }
        // Take the data first, without the lock; the stored item changes only
        // once all of it has arrived.
        const auto total = static_cast<std::size_t>(request.size);
        std::string data;
        std::vector<char> buffer(piece);
        while (data.size() < total) {
            _READDATA read;
            read.buffer = buffer.data();
            read.offset = static_cast<int64_t>(data.size());
            read.size = std::min(piece, total - data.size());
            read.handle = handle;
            read.fileSize = request.size;
            const AERROR got = source->Read(&read);
            if (got != SUCCESS) return got;
            if (read.read <= 0) break;
            if (static_cast<uint64_t>(read.read) > read.size) return FAILED;
            data.append(buffer.data(), static_cast<std::size_t>(read.read));
            {
                std::lock_guard<std::mutex> lock(mu_);
                uploadedBytes_ += read.read;
            }
            if (progress != nullptr && progress->callback != nullptr)
                progress->callback(data.size(), total, 0.0, progress->context);
        }
        // The source ended early: a remote never keeps a short file.
        if (data.size() < total) return FILE_READ_FAILED;

        std::lock_guard<std::mutex> lock(mu_);
        // The tree may have changed while the data was read.
        const AERROR rc = UploadTarget(parentKey, request, &target, &folder);
        if (rc != SUCCESS) return rc;
        const std::string now = Now();
        if (target == nullptr) target = &NewItem(folder, request.name, false, now);
        target->contents = std::move(data);
        target->modifyTime = target->accessTime = now;
        Fill(RecordOf(*target), record);
        return SUCCESS;
    });
}

AERROR MemoryProtocol::SetItemTime(const char* key, long long createTime, long long accessTime,
                                   long long modifyTime, void** cookie) {
    return Run(Op::SetItemTime, cookie, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = Find(key);
        if ((caps_ & PROTOCOL_CAP_SET_TIME) == 0) return NOT_SUPPORTED;
        if (item == nullptr) return FILE_NOT_FOUND;
        const std::pair<long long, std::string*> times[] = {{createTime, &item->createTime},
                                                            {accessTime, &item->accessTime},
                                                            {modifyTime, &item->modifyTime}};
        for (const auto& time : times) {
            if (time.first != 0) *time.second = FormatTime(static_cast<std::time_t>(time.first));
        }
        return SUCCESS;
    });
}

unsigned int MemoryProtocol::GetCapabilities() {
    std::lock_guard<std::mutex> lock(mu_);
    return caps_;
}

void MemoryProtocol::ReleaseCookie(void* cookie) {
    if (cookie == nullptr) return;
    std::lock_guard<std::mutex> lock(mu_);
    if (liveCookies_.erase(cookie) == 0) {
        ++badCookieReleases_;  // foreign or already released: never freed here
        return;
    }
    delete static_cast<AERROR*>(cookie);
}

AERROR MemoryProtocol::GetRootKey(char* buffer, unsigned long* length) {
    return Run(Op::GetRootKey, nullptr, [&] {
        std::lock_guard<std::mutex> lock(mu_);
        if (buffer == nullptr || *length < rootKey_.size() + 1) {
            *length = static_cast<unsigned long>(rootKey_.size() + 1);  // bytes needed
            return INSUFFICIENT_BUFFER;
        }
        std::memcpy(buffer, rootKey_.c_str(), rootKey_.size() + 1);
        *length = static_cast<unsigned long>(rootKey_.size());
        return SUCCESS;
    });
}
