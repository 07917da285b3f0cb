#include "support/memory_protocol.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace {

// The error object that the protocol hands out through cookie slots.
struct MemoryCookie {
    AERROR code;
    std::string text;
};

// Copies `text` with its terminator into `buffer` of `length` bytes.
AERROR CopyText(const std::string& text, char* buffer, unsigned long length) {
    if (buffer == nullptr) {
        return INVALID_PARAMETER;
    }
    if (length < text.size() + 1) {
        return INSUFFICIENT_BUFFER;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return SUCCESS;
}

}  // namespace

const char* MemoryProtocol::OpName(Op op) {
    static const char* const kNames[] = {
        "Connect",    "GetIdentity",   "GetQuota",       "GetItem",        "Download",
        "ListFolder", "GetChanges",    "CopyItem",       "RenameItem",     "MoveItem",
        "MoveFolder", "CreateFolder",  "DeleteItem",     "DeleteFolder",   "GetItemByPath",
        "UploadItem", "SetItemTime",   "SetArchive",     "DescribeCookie", "GetCapabilities",
        "Disconnect", "ReleaseCookie", "GetMaxFileSize", "IsValidName",    "GetRootKey"};
    static_assert(sizeof(kNames) / sizeof(kNames[0]) == static_cast<std::size_t>(Op::kCount),
                  "one name per operation");
    const auto index = static_cast<std::size_t>(op);
    return index < static_cast<std::size_t>(Op::kCount) ? kNames[index] : "?";
}

std::string MemoryProtocol::FormatTime(std::time_t seconds) {
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    const std::size_t n = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S.000Z", &parts);
    return std::string(text, n);
}

MemoryProtocol::MemoryProtocol(std::string identity) : identity_(std::move(identity)) {
    Item root;
    root.key = rootKey_;
    root.folder = true;
    root.createTime = root.accessTime = root.modifyTime = kDefaultTime;
    items_.emplace(rootKey_, std::move(root));
}

MemoryProtocol::~MemoryProtocol() {
    // Cookies the code under test never released are counted already; free
    // them so that leak checkers report only real leaks.
    for (void* cookie : liveCookies_) {
        delete static_cast<MemoryCookie*>(cookie);
    }
}

// ---- Internal helpers (caller holds mu_) ----

MemoryProtocol::Item* MemoryProtocol::Find(const std::string& key) {
    auto it = items_.find(key);
    return it == items_.end() ? nullptr : &it->second;
}

const MemoryProtocol::Item* MemoryProtocol::Find(const std::string& key) const {
    auto it = items_.find(key);
    return it == items_.end() ? nullptr : &it->second;
}

bool MemoryProtocol::SplitPath(const std::string& path, std::vector<std::string>* parts) {
    parts->clear();
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        std::string part = path.substr(start, end - start);
        if (part == "." || part == "..") {
            return false;
        }
        if (!part.empty()) {
            parts->push_back(std::move(part));
        }
        start = end + 1;
    }
    return true;
}

bool MemoryProtocol::ValidName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

MemoryProtocol::Item* MemoryProtocol::FindPath(const std::string& path) {
    return const_cast<Item*>(static_cast<const MemoryProtocol*>(this)->FindPath(path));
}

const MemoryProtocol::Item* MemoryProtocol::FindPath(const std::string& path) const {
    std::vector<std::string> parts;
    if (!SplitPath(path, &parts)) {
        return nullptr;
    }
    const Item* current = Find(rootKey_);
    for (const std::string& part : parts) {
        if (current == nullptr || !current->folder) {
            return nullptr;
        }
        auto child = current->children.find(part);
        if (child == current->children.end()) {
            return nullptr;
        }
        current = Find(child->second);
    }
    return current;
}

std::string MemoryProtocol::PathOfLocked(const Item& item) const {
    std::vector<const std::string*> names;
    for (const Item* at = &item; at != nullptr && !at->parentKey.empty();
         at = Find(at->parentKey)) {
        names.push_back(&at->name);
    }
    if (names.empty()) {
        return "/";
    }
    std::string path;
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        path += "/";
        path += **it;
    }
    return path;
}

bool MemoryProtocol::IsInside(const std::string& key, const std::string& folderKey) const {
    for (const Item* at = Find(key); at != nullptr; at = Find(at->parentKey)) {
        if (at->key == folderKey) {
            return true;
        }
        if (at->parentKey.empty()) {
            break;
        }
    }
    return false;
}

MemoryProtocol::Item& MemoryProtocol::NewItem(Item* parent, const std::string& name, bool folder,
                                              const std::string& time) {
    Item item;
    item.key = "k" + std::to_string(nextKey_++);
    item.name = name;
    item.folder = folder;
    item.createTime = item.accessTime = item.modifyTime = time;
    item.parentKey = parent->key;
    parent->children[name] = item.key;
    const std::string key = item.key;
    return items_.emplace(key, std::move(item)).first->second;
}

void MemoryProtocol::EraseTree(const std::string& key) {
    Item* item = Find(key);
    if (item == nullptr) {
        return;
    }
    std::vector<std::string> children;
    for (const auto& child : item->children) {
        children.push_back(child.second);
    }
    for (const std::string& child : children) {
        EraseTree(child);
    }
    items_.erase(key);
}

std::string MemoryProtocol::CopyTree(const Item& source, Item* parent, const std::string& name) {
    // Copy what is needed first: inserting into items_ keeps references valid,
    // but the source's child list is read after the new item joins the tree.
    const std::string sourceKey = source.key;
    Item& copy = NewItem(parent, name, source.folder, source.modifyTime);
    copy.contents = source.contents;
    copy.createTime = source.createTime;
    copy.accessTime = source.accessTime;
    const std::string copyKey = copy.key;
    std::vector<std::pair<std::string, std::string>> children(Find(sourceKey)->children.begin(),
                                                              Find(sourceKey)->children.end());
    for (const auto& child : children) {
        CopyTree(*Find(child.second), Find(copyKey), child.first);
    }
    return copyKey;
}

std::string MemoryProtocol::Now() const {
    return nowText_.empty() ? FormatTime(std::time(nullptr)) : nowText_;
}

_FS_FILE_V2 MemoryProtocol::RecordOf(const Item& item) const {
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

void MemoryProtocol::Fill(const _FS_FILE_V2& from, _FS_FILE_V2* to) {
    if (to == nullptr) {
        return;
    }
    to->key = from.key;
    to->attributes = from.attributes;
    to->size = from.size;
    to->createTime = from.createTime;
    to->accessTime = from.accessTime;
    to->modifyTime = from.modifyTime;
    to->name = from.name;
}

void* MemoryProtocol::NewCookie(Op op, AERROR code) {
    auto* cookie = new MemoryCookie{code, std::string("memory protocol: ") + OpName(op) + " " +
                                              (code == SUCCESS ? "succeeded" : "failed") +
                                              " with " + GetAERRORA(code)};
    liveCookies_.insert(cookie);
    ++cookiesCreated_;
    return cookie;
}

// ---- Operation framing ----

AERROR MemoryProtocol::Enter(Op op, void** cookie, bool remote,
                             const std::shared_ptr<_FS_HANDLE>& handle) {
    if (cookie != nullptr) {
        *cookie = nullptr;
    }
    std::chrono::milliseconds delay{0};
    {
        std::lock_guard<std::mutex> lock(mu_);
        ++calls_[op];
        if (remote) {
            delay = delay_;
        }
    }
    if (delay.count() > 0) {
        std::this_thread::sleep_for(delay);
    }
    std::unique_lock<std::mutex> lock(mu_);
    if (paused_.count(op) != 0) {
        ++waiting_[op];
        pauseCv_.notify_all();
        // Polled rather than only notified so that a handle that starts
        // closing ends the wait without any signal from the library.
        while (paused_.count(op) != 0 && !(handle && handle->IsClosing())) {
            pauseCv_.wait_for(lock, std::chrono::milliseconds(2));
        }
        --waiting_[op];
    }
    auto failure = failures_.find(op);
    if (failure == failures_.end()) {
        return SUCCESS;
    }
    const AERROR code = failure->second.code;
    if (failure->second.remaining > 0 && --failure->second.remaining == 0) {
        failures_.erase(failure);
    }
    if (cookie != nullptr) {
        *cookie = NewCookie(op, code);
    }
    return code;
}

AERROR MemoryProtocol::Finish(Op op, AERROR code, void** cookie) {
    if (cookie != nullptr) {
        std::lock_guard<std::mutex> lock(mu_);
        if (code != SUCCESS || cookieOnSuccess_) {
            *cookie = NewCookie(op, code);
        }
    }
    return code;
}

// ---- Tree setup ----

std::string MemoryProtocol::AddFolder(const std::string& path) {
    std::vector<std::string> parts;
    if (!SplitPath(path, &parts)) {
        return "";
    }
    std::lock_guard<std::mutex> lock(mu_);
    Item* current = Find(rootKey_);
    for (const std::string& part : parts) {
        auto child = current->children.find(part);
        if (child == current->children.end()) {
            current = &NewItem(current, part, true, kDefaultTime);
        } else {
            current = Find(child->second);
            if (!current->folder) {
                return "";
            }
        }
    }
    return current->key;
}

std::string MemoryProtocol::AddFile(const std::string& path, const std::string& contents,
                                    const std::string& modifyTime) {
    std::vector<std::string> parts;
    if (!SplitPath(path, &parts) || parts.empty()) {
        return "";
    }
    const std::string name = parts.back();
    parts.pop_back();
    std::lock_guard<std::mutex> lock(mu_);
    Item* folder = Find(rootKey_);
    for (const std::string& part : parts) {
        auto child = folder->children.find(part);
        if (child == folder->children.end()) {
            folder = &NewItem(folder, part, true, kDefaultTime);
        } else {
            folder = Find(child->second);
            if (!folder->folder) {
                return "";
            }
        }
    }
    Item* file = nullptr;
    auto existing = folder->children.find(name);
    if (existing == folder->children.end()) {
        file = &NewItem(folder, name, false, modifyTime);
    } else {
        file = Find(existing->second);
        if (file->folder) {
            return "";
        }
        file->createTime = file->accessTime = file->modifyTime = modifyTime;
    }
    file->contents = contents;
    return file->key;
}

bool MemoryProtocol::Remove(const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(path);
    if (item == nullptr || item->parentKey.empty()) {
        return false;
    }
    Find(item->parentKey)->children.erase(item->name);
    EraseTree(item->key);
    return true;
}

void MemoryProtocol::SetRootKey(const std::string& key) {
    std::lock_guard<std::mutex> lock(mu_);
    if (key == rootKey_ || items_.count(key) != 0) {
        return;
    }
    Item root = std::move(items_.at(rootKey_));
    items_.erase(rootKey_);
    root.key = key;
    for (const auto& child : root.children) {
        Find(child.second)->parentKey = key;
    }
    items_.emplace(key, std::move(root));
    rootKey_ = key;
}

// ---- Inspection ----

bool MemoryProtocol::GetContents(const std::string& path, std::string* out) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    if (item == nullptr || item->folder) {
        return false;
    }
    if (out != nullptr) {
        *out = item->contents;
    }
    return true;
}

bool MemoryProtocol::Exists(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    return FindPath(path) != nullptr;
}

bool MemoryProtocol::IsFolder(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    return item != nullptr && item->folder;
}

bool MemoryProtocol::IsArchived(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    return item != nullptr && item->archived;
}

std::string MemoryProtocol::KeyOf(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    return item == nullptr ? "" : item->key;
}

std::string MemoryProtocol::PathOf(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = Find(key);
    return item == nullptr ? "" : PathOfLocked(*item);
}

std::string MemoryProtocol::RootKey() const {
    std::lock_guard<std::mutex> lock(mu_);
    return rootKey_;
}

_FS_FILE_V2 MemoryProtocol::Record(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* item = FindPath(path);
    return item == nullptr ? _FS_FILE_V2() : RecordOf(*item);
}

std::vector<std::string> MemoryProtocol::ListNames(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> names;
    const Item* item = FindPath(path);
    if (item != nullptr) {
        for (const auto& child : item->children) {
            names.push_back(child.first);
        }
    }
    return names;
}

// ---- Remote-side changes ----

bool MemoryProtocol::RemoteAdd(const std::string& path, const std::string& contents) {
    std::vector<std::string> parts;
    if (!SplitPath(path, &parts) || parts.empty()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    std::string parentPath;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        parentPath += "/" + parts[i];
    }
    Item* parent = FindPath(parentPath);
    if (parent == nullptr || !parent->folder || parent->children.count(parts.back()) != 0) {
        return false;
    }
    Item& item = NewItem(parent, parts.back(), false, Now());
    item.contents = contents;
    changes_.push_back({Change::kAdded, parent->key, "", RecordOf(item)});
    return true;
}

bool MemoryProtocol::RemoteAddFolder(const std::string& path) {
    std::vector<std::string> parts;
    if (!SplitPath(path, &parts) || parts.empty()) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    std::string parentPath;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        parentPath += "/" + parts[i];
    }
    Item* parent = FindPath(parentPath);
    if (parent == nullptr || !parent->folder || parent->children.count(parts.back()) != 0) {
        return false;
    }
    Item& item = NewItem(parent, parts.back(), true, Now());
    changes_.push_back({Change::kAdded, parent->key, "", RecordOf(item)});
    return true;
}

bool MemoryProtocol::RemoteRemove(const std::string& path) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(path);
    if (item == nullptr || item->parentKey.empty()) {
        return false;
    }
    const std::string parentKey = item->parentKey;
    const std::string name = item->name;
    Find(parentKey)->children.erase(name);
    EraseTree(item->key);
    changes_.push_back({Change::kRemoved, parentKey, name, _FS_FILE_V2()});
    return true;
}

bool MemoryProtocol::RemoteChange(const std::string& path, const std::string& contents,
                                  const std::string& modifyTime) {
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(path);
    if (item == nullptr || item->folder) {
        return false;
    }
    item->contents = contents;
    item->modifyTime = item->accessTime = modifyTime.empty() ? Now() : modifyTime;
    changes_.push_back({Change::kChanged, item->key, "", RecordOf(*item)});
    return true;
}

bool MemoryProtocol::RemoteMove(const std::string& from, const std::string& to) {
    std::vector<std::string> parts;
    if (!SplitPath(to, &parts) || parts.empty()) {
        return false;
    }
    std::string toParent;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        toParent += "/" + parts[i];
    }
    std::lock_guard<std::mutex> lock(mu_);
    Item* item = FindPath(from);
    Item* target = FindPath(toParent);
    if (item == nullptr || item->parentKey.empty() || target == nullptr || !target->folder ||
        target->children.count(parts.back()) != 0 || IsInside(target->key, item->key)) {
        return false;
    }
    const std::string oldParent = item->parentKey;
    const std::string oldName = item->name;
    Find(oldParent)->children.erase(oldName);
    item->name = parts.back();
    item->parentKey = target->key;
    target->children[item->name] = item->key;
    changes_.push_back({Change::kRemoved, oldParent, oldName, _FS_FILE_V2()});
    changes_.push_back({Change::kAdded, target->key, "", RecordOf(*item)});
    return true;
}

bool MemoryProtocol::QueueRefresh(const std::string& folderPath) {
    std::lock_guard<std::mutex> lock(mu_);
    const Item* folder = FindPath(folderPath);
    if (folder == nullptr || !folder->folder) {
        return false;
    }
    changes_.push_back({Change::kRefresh, folder->key, "", _FS_FILE_V2()});
    return true;
}

std::size_t MemoryProtocol::PendingChanges() const {
    std::lock_guard<std::mutex> lock(mu_);
    return changes_.size();
}

// ---- Switches and counters ----

void MemoryProtocol::SetCapabilities(unsigned int caps) {
    std::lock_guard<std::mutex> lock(mu_);
    caps_ = caps;
}

void MemoryProtocol::SetQuota(unsigned long long total, unsigned long long used) {
    std::lock_guard<std::mutex> lock(mu_);
    quotaSet_ = true;
    quotaTotal_ = total;
    quotaUsed_ = used;
}

void MemoryProtocol::SetNowText(const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    nowText_ = text;
}

void MemoryProtocol::SetPieceSize(std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mu_);
    pieceSize_ = bytes == 0 ? 1 : bytes;
}

void MemoryProtocol::SetDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(mu_);
    delay_ = delay;
}

void MemoryProtocol::FailNext(Op op, AERROR code, int times) {
    std::lock_guard<std::mutex> lock(mu_);
    if (times <= 0) {
        failures_.erase(op);
        return;
    }
    failures_[op] = Failure{code, times};
}

void MemoryProtocol::FailAlways(Op op, AERROR code) {
    std::lock_guard<std::mutex> lock(mu_);
    failures_[op] = Failure{code, -1};
}

void MemoryProtocol::ClearFailures() {
    std::lock_guard<std::mutex> lock(mu_);
    failures_.clear();
}

void MemoryProtocol::SetCookieOnSuccess(bool on) {
    std::lock_guard<std::mutex> lock(mu_);
    cookieOnSuccess_ = on;
}

void MemoryProtocol::Pause(Op op) {
    std::lock_guard<std::mutex> lock(mu_);
    paused_.insert(op);
}

void MemoryProtocol::Resume(Op op) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        paused_.erase(op);
    }
    pauseCv_.notify_all();
}

bool MemoryProtocol::WaitForPaused(Op op, int count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mu_);
    return pauseCv_.wait_for(lock, limit, [&] {
        auto it = waiting_.find(op);
        return it != waiting_.end() && it->second >= count;
    });
}

int MemoryProtocol::Calls(Op op) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = calls_.find(op);
    return it == calls_.end() ? 0 : it->second;
}

void MemoryProtocol::ResetCounters() {
    std::lock_guard<std::mutex> lock(mu_);
    calls_.clear();
    downloadedRanges_.clear();
    downloadedBytes_ = 0;
    uploadedBytes_ = 0;
}

std::vector<std::pair<long long, long long>> MemoryProtocol::DownloadedRanges() const {
    std::lock_guard<std::mutex> lock(mu_);
    return downloadedRanges_;
}

long long MemoryProtocol::DownloadedBytes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return downloadedBytes_;
}

long long MemoryProtocol::UploadedBytes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return uploadedBytes_;
}

int MemoryProtocol::CookiesCreated() const {
    std::lock_guard<std::mutex> lock(mu_);
    return cookiesCreated_;
}

int MemoryProtocol::CookiesReleased() const {
    std::lock_guard<std::mutex> lock(mu_);
    return cookiesReleased_;
}

int MemoryProtocol::CookiesOutstanding() const {
    std::lock_guard<std::mutex> lock(mu_);
    return static_cast<int>(liveCookies_.size());
}

int MemoryProtocol::BadCookieReleases() const {
    std::lock_guard<std::mutex> lock(mu_);
    return badCookieReleases_;
}

// ---- IProtocol_V2 ----

AERROR MemoryProtocol::Connect() {
    return Enter(Op::Connect, nullptr);
}

AERROR MemoryProtocol::GetIdentity(char* buffer, unsigned long length) {
    const AERROR rc = Enter(Op::GetIdentity, nullptr);
    return rc != SUCCESS ? rc : CopyText(identity_, buffer, length);
}

AERROR MemoryProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
    const AERROR rc = Enter(Op::GetQuota, nullptr);
    if (rc != SUCCESS) {
        return rc;
    }
    if (total == nullptr || used == nullptr) {
        return INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (quotaSet_) {
        *total = quotaTotal_;
        *used = quotaUsed_;
        return SUCCESS;
    }
    // Unless told otherwise: a 1 GiB store whose use is what the tree holds.
    unsigned long long bytes = 0;
    for (const auto& entry : items_) {
        bytes += entry.second.contents.size();
    }
    *total = 1ULL << 30;
    *used = bytes;
    return SUCCESS;
}

AERROR MemoryProtocol::GetItem(const char* key, _FS_FILE_V2* record, void** cookie) {
    AERROR rc = Enter(Op::GetItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        const Item* item = key == nullptr ? nullptr : Find(key);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else {
            Fill(RecordOf(*item), record);
        }
    }
    return Finish(Op::GetItem, rc, cookie);
}

AERROR MemoryProtocol::Download(const char* key, long long offset, long long size,
                                std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                                void** cookie) {
    AERROR rc = Enter(Op::Download, cookie, true, handle);
    if (rc != SUCCESS) {
        return rc;
    }
    std::string data;
    std::size_t piece = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        downloadedRanges_.emplace_back(offset, size);
        piece = pieceSize_;
        const Item* item = key == nullptr ? nullptr : Find(key);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (item->folder) {
            rc = FAILED;
        } else if (offset < 0 || size < 0 || callback == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (static_cast<std::size_t>(offset) < item->contents.size()) {
            // A range past the end is cut to the end.
            const std::size_t available = item->contents.size() - static_cast<std::size_t>(offset);
            data = item->contents.substr(static_cast<std::size_t>(offset),
                                         std::min<std::size_t>(available, size));
        }
    }
    if (rc != SUCCESS) {
        return Finish(Op::Download, rc, cookie);
    }
    if (handle && handle->IsClosing()) {
        return Finish(Op::Download, READ_CANCELED, cookie);
    }
    for (std::size_t pos = 0; pos < data.size();) {
        if (handle && handle->IsClosing()) {
            return Finish(Op::Download, READ_CANCELED, cookie);
        }
        const std::size_t n = std::min(piece, data.size() - pos);
        long written = 0;
        const AERROR sent = callback->FetchWrite(offset + static_cast<long long>(pos),
                                                 data.data() + pos, static_cast<long>(n), &written);
        {
            std::lock_guard<std::mutex> lock(mu_);
            downloadedBytes_ += static_cast<long long>(n);
        }
        if (sent != SUCCESS) {
            return Finish(Op::Download, sent, cookie);
        }
        if (written != static_cast<long>(n)) {
            // The receiver took less than it was given: the transfer is broken.
            return Finish(Op::Download, FAILED, cookie);
        }
        pos += n;
    }
    return Finish(Op::Download, SUCCESS, cookie);
}

AERROR MemoryProtocol::ListFolder(const char* key, IFileList* sink, void** cookie) {
    AERROR rc = Enter(Op::ListFolder, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    std::vector<_FS_FILE_V2> records;
    {
        std::lock_guard<std::mutex> lock(mu_);
        const Item* folder = key == nullptr ? nullptr : Find(key);
        if (folder == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (!folder->folder) {
            rc = INVALID_DIRECTORY;
        } else if (sink == nullptr) {
            rc = INVALID_PARAMETER;
        } else {
            for (const auto& child : folder->children) {
                records.push_back(RecordOf(*Find(child.second)));
            }
        }
    }
    for (const _FS_FILE_V2& record : records) {
        if (rc != SUCCESS) {
            break;
        }
        rc = sink->AddFile(&record);
    }
    return Finish(Op::ListFolder, rc, cookie);
}

AERROR MemoryProtocol::GetChanges(IFileChanges* sink, void** cookie) {
    AERROR rc = Enter(Op::GetChanges, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    if (sink == nullptr) {
        return Finish(Op::GetChanges, INVALID_PARAMETER, cookie);
    }
    std::vector<Change> changes;
    {
        std::lock_guard<std::mutex> lock(mu_);
        changes.swap(changes_);
    }
    for (Change& change : changes) {
        switch (change.kind) {
            case Change::kAdded:
                sink->Added(change.key.c_str(), &change.record);
                break;
            case Change::kRemoved:
                sink->Removed(change.key.c_str(), change.name.c_str());
                break;
            case Change::kChanged:
                sink->Changed(change.key.c_str(), &change.record);
                break;
            case Change::kRefresh:
                sink->Refresh(change.key.c_str());
                break;
        }
    }
    return Finish(Op::GetChanges, SUCCESS, cookie);
}

AERROR MemoryProtocol::CopyItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                void** cookie) {
    AERROR rc = Enter(Op::CopyItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        const Item* item = key == nullptr ? nullptr : Find(key);
        Item* parent = parentKey == nullptr ? nullptr : Find(parentKey);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (parent == nullptr) {
            rc = PATH_NOT_FOUND;
        } else if (!parent->folder) {
            rc = INVALID_DIRECTORY;
        } else if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (!ValidName(record->name)) {
            rc = INVALID_NAME;
        } else if (parent->children.count(record->name) != 0) {
            rc = ALREADY_EXISTS;
        } else if (IsInside(parent->key, item->key)) {
            rc = INVALID_PARAMETER;
        } else {
            const std::string copy = CopyTree(*item, parent, record->name);
            Fill(RecordOf(*Find(copy)), record);
        }
    }
    return Finish(Op::CopyItem, rc, cookie);
}

AERROR MemoryProtocol::RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    AERROR rc = Enter(Op::RenameItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = key == nullptr ? nullptr : Find(key);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (item->parentKey.empty()) {
            rc = ACCESS_DENIED;
        } else if (parentKey == nullptr || item->parentKey != parentKey || record == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (!ValidName(record->name)) {
            rc = INVALID_NAME;
        } else if (record->name != item->name) {
            Item* parent = Find(item->parentKey);
            if (parent->children.count(record->name) != 0) {
                rc = ALREADY_EXISTS;
            } else {
                parent->children.erase(item->name);
                item->name = record->name;
                parent->children[item->name] = item->key;
            }
        }
        if (rc == SUCCESS) {
            Fill(RecordOf(*item), record);
        }
    }
    return Finish(Op::RenameItem, rc, cookie);
}

AERROR MemoryProtocol::MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                void** cookie) {
    AERROR rc = Enter(Op::MoveItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        rc = MoveLocked(key, newParentKey, false, record);
    }
    return Finish(Op::MoveItem, rc, cookie);
}

AERROR MemoryProtocol::MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    AERROR rc = Enter(Op::MoveFolder, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        rc = MoveLocked(key, newParentKey, true, record);
    }
    return Finish(Op::MoveFolder, rc, cookie);
}

AERROR MemoryProtocol::MoveLocked(const char* key, const char* newParentKey, bool folder,
                                  _FS_FILE_V2* record) {
    Item* item = key == nullptr ? nullptr : Find(key);
    Item* target = newParentKey == nullptr ? nullptr : Find(newParentKey);
    if (item == nullptr) {
        return FILE_NOT_FOUND;
    }
    if (item->parentKey.empty()) {
        return ACCESS_DENIED;
    }
    if (item->folder != folder) {
        return INVALID_PARAMETER;
    }
    if (target == nullptr) {
        return PATH_NOT_FOUND;
    }
    if (!target->folder) {
        return INVALID_DIRECTORY;
    }
    if (IsInside(target->key, item->key)) {
        return INVALID_PARAMETER;
    }
    if (target->key != item->parentKey) {
        if (target->children.count(item->name) != 0) {
            return ALREADY_EXISTS;
        }
        Find(item->parentKey)->children.erase(item->name);
        item->parentKey = target->key;
        target->children[item->name] = item->key;
    }
    Fill(RecordOf(*item), record);
    return SUCCESS;
}

AERROR MemoryProtocol::CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) {
    AERROR rc = Enter(Op::CreateFolder, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* parent = parentKey == nullptr ? nullptr : Find(parentKey);
        if (parent == nullptr) {
            rc = PATH_NOT_FOUND;
        } else if (!parent->folder) {
            rc = INVALID_DIRECTORY;
        } else if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (!ValidName(record->name)) {
            rc = INVALID_NAME;
        } else if (parent->children.count(record->name) != 0) {
            rc = ALREADY_EXISTS;
        } else {
            Fill(RecordOf(NewItem(parent, record->name, true, Now())), record);
        }
    }
    return Finish(Op::CreateFolder, rc, cookie);
}

AERROR MemoryProtocol::DeleteItem(const _FS_FILE_V2* record, void** cookie) {
    AERROR rc = Enter(Op::DeleteItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = record == nullptr ? nullptr : Find(record->key);
        if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (item->folder) {
            rc = INVALID_PARAMETER;
        } else {
            Find(item->parentKey)->children.erase(item->name);
            items_.erase(record->key);
        }
    }
    return Finish(Op::DeleteItem, rc, cookie);
}

AERROR MemoryProtocol::DeleteFolder(const _FS_FILE_V2* record, void** cookie) {
    AERROR rc = Enter(Op::DeleteFolder, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = record == nullptr ? nullptr : Find(record->key);
        if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (!item->folder) {
            rc = INVALID_PARAMETER;
        } else if (item->parentKey.empty()) {
            rc = ACCESS_DENIED;
        } else {
            Find(item->parentKey)->children.erase(item->name);
            EraseTree(item->key);
        }
    }
    return Finish(Op::DeleteFolder, rc, cookie);
}

AERROR MemoryProtocol::GetItemByPath(const char* path, _FS_FILE_V2* record, void** cookie) {
    AERROR rc = Enter(Op::GetItemByPath, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        const Item* item = path == nullptr ? nullptr : FindPath(path);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else if (record == nullptr) {
            rc = INVALID_PARAMETER;
        } else {
            Fill(RecordOf(*item), record);
        }
    }
    return Finish(Op::GetItemByPath, rc, cookie);
}

AERROR MemoryProtocol::UploadTargetLocked(const std::string& parentKey, const _FS_FILE_V2& record,
                                          Item** target, Item** parent) {
    *target = nullptr;
    *parent = nullptr;
    if (!record.key.empty()) {
        Item* item = Find(record.key);
        if (item == nullptr) {
            return FILE_NOT_FOUND;
        }
        if (item->folder) {
            return INVALID_PARAMETER;
        }
        *target = item;
        return SUCCESS;
    }
    Item* folder = Find(parentKey);
    if (folder == nullptr) {
        return PATH_NOT_FOUND;
    }
    if (!folder->folder) {
        return INVALID_DIRECTORY;
    }
    if (!ValidName(record.name)) {
        return INVALID_NAME;
    }
    auto existing = folder->children.find(record.name);
    if (existing != folder->children.end()) {
        Item* item = Find(existing->second);
        if (item->folder) {
            return ALREADY_EXISTS;
        }
        *target = item;  // a same-name file is replaced
        return SUCCESS;
    }
    *parent = folder;
    return SUCCESS;
}

AERROR MemoryProtocol::UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                                  ICacheIO* source, _FS_FILE_V2* record,
                                  const _TRANSFERPROGRESS* progress, void** cookie) {
    AERROR rc = Enter(Op::UploadItem, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    if (record == nullptr || record->size < 0) {
        return Finish(Op::UploadItem, INVALID_PARAMETER, cookie);
    }
    const std::string parent = parentKey == nullptr ? "" : parentKey;
    const _FS_FILE_V2 request = *record;
    std::size_t piece = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* target = nullptr;
        Item* folder = nullptr;
        rc = UploadTargetLocked(parent, request, &target, &folder);
        piece = pieceSize_;
    }
    if (rc == SUCCESS && request.size > 0 && source == nullptr) {
        rc = INVALID_PARAMETER;
    }
    if (rc != SUCCESS) {
        return Finish(Op::UploadItem, rc, cookie);
    }

    // Take the data first, without the lock; the stored item changes only
    // once all of it has arrived.
    const auto total = static_cast<unsigned long long>(request.size);
    const auto started = std::chrono::steady_clock::now();
    std::string data;
    std::vector<char> buffer(piece);
    while (data.size() < total) {
        const std::size_t want = std::min<unsigned long long>(piece, total - data.size());
        _READDATA read;
        read.buffer = buffer.data();
        read.offset = static_cast<int64_t>(data.size());
        read.size = want;
        read.handle = handle;
        read.fileSize = request.size;
        const AERROR got = source->Read(&read);
        if (got != SUCCESS) {
            return Finish(Op::UploadItem, got, cookie);
        }
        if (read.read <= 0) {
            break;
        }
        if (static_cast<std::size_t>(read.read) > want) {
            return Finish(Op::UploadItem, FAILED, cookie);
        }
        data.append(buffer.data(), static_cast<std::size_t>(read.read));
        {
            std::lock_guard<std::mutex> lock(mu_);
            uploadedBytes_ += read.read;
        }
        if (progress != nullptr && progress->callback != nullptr) {
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            progress->callback(data.size(), total, seconds > 0 ? data.size() / seconds : 0.0,
                               progress->context);
        }
    }
    if (data.size() < total) {
        // The source ended early: a remote never keeps a short file.
        return Finish(Op::UploadItem, FILE_READ_FAILED, cookie);
    }

    {
        std::lock_guard<std::mutex> lock(mu_);
        // The tree may have changed while the data was read.
        Item* target = nullptr;
        Item* folder = nullptr;
        rc = UploadTargetLocked(parent, request, &target, &folder);
        if (rc == SUCCESS) {
            const std::string now = Now();
            if (target == nullptr) {
                target = &NewItem(folder, request.name, false, now);
            }
            target->contents = std::move(data);
            target->modifyTime = target->accessTime = now;
            Fill(RecordOf(*target), record);
        }
    }
    return Finish(Op::UploadItem, rc, cookie);
}

AERROR MemoryProtocol::SetItemTime(const char* key, long long createTime, long long accessTime,
                                   long long modifyTime, void** cookie) {
    AERROR rc = Enter(Op::SetItemTime, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = key == nullptr ? nullptr : Find(key);
        if ((caps_ & PROTOCOL_CAP_SET_TIME) == 0) {
            rc = NOT_SUPPORTED;
        } else if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else {
            if (createTime != 0) {
                item->createTime = FormatTime(static_cast<std::time_t>(createTime));
            }
            if (accessTime != 0) {
                item->accessTime = FormatTime(static_cast<std::time_t>(accessTime));
            }
            if (modifyTime != 0) {
                item->modifyTime = FormatTime(static_cast<std::time_t>(modifyTime));
            }
        }
    }
    return Finish(Op::SetItemTime, rc, cookie);
}

AERROR MemoryProtocol::SetArchive(const char* key, bool archived, void** cookie) {
    AERROR rc = Enter(Op::SetArchive, cookie);
    if (rc != SUCCESS) {
        return rc;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        Item* item = key == nullptr ? nullptr : Find(key);
        if (item == nullptr) {
            rc = FILE_NOT_FOUND;
        } else {
            item->archived = archived;
        }
    }
    return Finish(Op::SetArchive, rc, cookie);
}

AERROR MemoryProtocol::DescribeCookie(void* cookie, char* buffer, unsigned long length) {
    Enter(Op::DescribeCookie, nullptr, false);
    std::string text;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (liveCookies_.count(cookie) == 0) {
            return INVALID_PARAMETER;
        }
        text = static_cast<MemoryCookie*>(cookie)->text;
    }
    if (buffer == nullptr || length == 0) {
        return INSUFFICIENT_BUFFER;
    }
    const std::size_t n = std::min<std::size_t>(text.size(), length - 1);
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
    return SUCCESS;
}

unsigned int MemoryProtocol::GetCapabilities() {
    Enter(Op::GetCapabilities, nullptr, false);
    std::lock_guard<std::mutex> lock(mu_);
    return caps_;
}

void MemoryProtocol::Disconnect() {
    Enter(Op::Disconnect, nullptr);
}

void MemoryProtocol::ReleaseCookie(void* cookie) {
    Enter(Op::ReleaseCookie, nullptr, false);
    if (cookie == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (liveCookies_.erase(cookie) == 0) {
        // Foreign or already released: never freed here.
        ++badCookieReleases_;
        return;
    }
    delete static_cast<MemoryCookie*>(cookie);
    ++cookiesReleased_;
}

long long MemoryProtocol::GetMaxFileSize() {
    Enter(Op::GetMaxFileSize, nullptr, false);
    return 0;
}

bool MemoryProtocol::IsValidName(const char* name) {
    Enter(Op::IsValidName, nullptr, false);
    return name != nullptr && ValidName(name);
}

AERROR MemoryProtocol::GetRootKey(char* buffer, unsigned long* length) {
    const AERROR rc = Enter(Op::GetRootKey, nullptr);
    if (rc != SUCCESS) {
        return rc;
    }
    if (length == nullptr) {
        return INVALID_PARAMETER;
    }
    const std::string key = RootKey();
    if (buffer == nullptr || *length < key.size() + 1) {
        *length = static_cast<unsigned long>(key.size() + 1);  // bytes needed
        return INSUFFICIENT_BUFFER;
    }
    std::memcpy(buffer, key.c_str(), key.size() + 1);
    *length = static_cast<unsigned long>(key.size());
    return SUCCESS;
}
