#include "services/disk_cache.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "services/atomic_file.h"
#include "services/cache_object.h"
#include "services/cache_records.h"

namespace {

constexpr char kRecordSuffix[] = ".map";
constexpr char kDataSuffix[] = ".data";
constexpr char kTempSuffix[] = ".tmp";

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Creates `path` and any missing parents.
bool MakeDirs(const std::string& path, std::string* error) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            if (error != nullptr) *error = "cannot create " + part + ": " + strerror(errno);
            return false;
        }
        if (slash == std::string::npos) break;
    }
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        if (error != nullptr) *error = path + " is not a folder";
        return false;
    }
    return true;
}

// FNV-1a: a stable hash, so an entry gets the same name in every run.
uint64_t HashKey(const std::string& key) {
    uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : key) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

bool IsValidBlockSize(uint32_t size) {
    return size >= 512 && size <= (64u << 20);
}

}  // namespace

std::shared_ptr<DiskCache> DiskCache::Create(const std::string& dir, uint64_t maxBytes,
                                             IAsyncQ* queue, ILog* log, std::string* error,
                                             const DiskCacheOptions& options) {
    std::string root = dir;
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    if (root.empty()) {
        if (error != nullptr) *error = "no cache directory given";
        return nullptr;
    }
    if (!IsValidBlockSize(options.blockSize)) {
        if (error != nullptr) *error = "cache block size must be between 512 bytes and 64 MiB";
        return nullptr;
    }
    if (!MakeDirs(root + "/data", error)) return nullptr;
    std::unique_ptr<DirLock> lock = DirLock::Acquire(root, error);
    if (lock == nullptr) return nullptr;

    auto context = std::make_shared<CacheContext>();
    context->blockSize = options.blockSize;
    context->readAheadBlocks = options.readAheadBlocks;
    context->maxFetchBlocks = std::max<uint32_t>(options.maxFetchBlocks, 1);
    context->queue = queue;
    context->log = log;
    // A folder keeps the block size it was made with.
    std::string text;
    IndexRecord index;
    if (ReadFileContent(root + "/index", &text) && DecodeIndexRecord(text, &index)) {
        context->blockSize = index.blockSize;
    }
    std::shared_ptr<DiskCache> cache(new DiskCache(root, maxBytes, context, std::move(lock)));
    cache->Restore();
    cache->Trim(true);
    return cache;
}

DiskCache::DiskCache(std::string dir, uint64_t maxBytes, std::shared_ptr<CacheContext> context,
                     std::unique_ptr<DirLock> lock)
    : dir_(std::move(dir)),
      dataDir_(dir_ + "/data"),
      maxBytes_(maxBytes),
      context_(std::move(context)),
      lock_(std::move(lock)) {}

DiskCache::~DiskCache() {
    std::vector<std::shared_ptr<CacheEntry>> entries;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        for (const auto& item : entries_)
            entries.push_back(item.second);
    }
    // Outside the lock: shutting an entry down waits for its read-ahead.
    for (const auto& entry : entries)
        entry->Shutdown();
    std::lock_guard<std::mutex> lock(mutex_);
    SaveIndexLocked(true);
    entries_.clear();
}

void DiskCache::Restore() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string text;
    IndexRecord index;
    const bool hasIndex = ReadFileContent(dir_ + "/index", &text);
    if (hasIndex && !DecodeIndexRecord(text, &index)) {
        Log(LL_WARNING, "[CACHE] %s/index is damaged; rebuilding it from the entries",
            dir_.c_str());
    }

    std::set<std::string> records;
    std::set<std::string> dataFiles;
    if (DIR* folder = opendir(dataDir_.c_str())) {
        while (const dirent* item = readdir(folder)) {
            const std::string file = item->d_name;
            if (EndsWith(file, kTempSuffix)) {
                unlink((dataDir_ + "/" + file).c_str());  // left by an interrupted save
            } else if (EndsWith(file, kRecordSuffix)) {
                records.insert(file.substr(0, file.size() - strlen(kRecordSuffix)));
            } else if (EndsWith(file, kDataSuffix)) {
                dataFiles.insert(file.substr(0, file.size() - strlen(kDataSuffix)));
            }
        }
        closedir(folder);
    }

    // Least recently used first: the index's order, then entries it missed.
    std::vector<std::string> order;
    std::set<std::string> listed;
    for (const IndexEntry& item : index.entries) {
        if (records.count(item.name) != 0 && listed.insert(item.name).second) {
            order.push_back(item.name);
        }
    }
    for (const std::string& name : records) {
        if (listed.insert(name).second) order.push_back(name);
    }

    for (const std::string& name : order) {
        if (!IsValidEntryName(name)) continue;  // not a file of ours
        const CacheEntry::Files files = FilesFor(name);
        EntryRecord record;
        if (!ReadFileContent(files.record, &text) || !DecodeEntryRecord(text, &record)) {
            // Kept as it is: it may hold written data that a later version can read.
            Log(LL_WARNING, "[CACHE] cannot read %s; leaving it alone", files.record.c_str());
            names_.insert(name);
            continue;
        }
        if (entries_.count(record.key) != 0) {
            Log(LL_WARNING, "[CACHE] %s repeats the key of another entry; leaving it alone",
                files.record.c_str());
            names_.insert(name);
            continue;
        }
        if (dataFiles.count(name) == 0) {
            Log(LL_WARNING, "[CACHE] the data of %s is missing; dropping the entry",
                record.key.c_str());
            unlink(files.record.c_str());
            continue;
        }
        std::string error;
        std::shared_ptr<CacheEntry> entry = CacheEntry::Restore(context_, files, record, &error);
        names_.insert(name);
        if (entry == nullptr) {
            Log(LL_WARNING, "[CACHE] %s; leaving it alone", error.c_str());
            continue;
        }
        entry->Touch();
        entries_.emplace(record.key, std::move(entry));
    }

    // Data without a record was never vouched for: nothing in it is known.
    for (const std::string& name : dataFiles) {
        if (names_.count(name) == 0 && IsValidEntryName(name)) {
            unlink(FilesFor(name).data.c_str());
        }
    }
    SaveIndexLocked(true);
    Log(LL_INFO, "[CACHE] %s: %zu entries, %llu bytes held, %llu not yet uploaded", dir_.c_str(),
        entries_.size(), static_cast<unsigned long long>(context_->usedBytes.load()),
        static_cast<unsigned long long>(context_->unsentBytes.load()));
}

AERROR DiskCache::GetUsage(unsigned long long* used, unsigned long long* unsent) {
    if (used != nullptr) *used = context_->usedBytes.load();
    if (unsent != nullptr) *unsent = context_->unsentBytes.load();
    return SUCCESS;
}

AERROR DiskCache::Flush() {
    std::vector<std::shared_ptr<CacheEntry>> entries;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) return CACHE_NOT_OPENED;
        for (const auto& item : entries_)
            entries.push_back(item.second);
    }
    AERROR result = SUCCESS;
    for (const auto& entry : entries) {
        const AERROR saved = entry->Save();
        if (saved != SUCCESS && saved != CACHE_NOT_OPENED && result == SUCCESS) result = saved;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!SaveIndexLocked(true) && result == SUCCESS) result = CACHE_WRITE_FAILED;
    return result;
}

AERROR DiskCache::Remove(const char* key) {
    if (key == nullptr) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return CACHE_NOT_OPENED;
    const auto found = entries_.find(key);
    if (found == entries_.end()) return FILE_NOT_FOUND;
    if (found->second->OpenCount() > 0) return SHARING_VIOLATION;
    found->second->Forget(true);
    names_.erase(found->second->Name());
    entries_.erase(found);
    SaveIndexLocked(false);
    return SUCCESS;
}

std::shared_ptr<ICacheObj> DiskCache::Open(const char* key, char mode, long long size,
                                           IFetch* fetcher) {
    if (key == nullptr || *key == '\0' || (mode != 'r' && mode != 'w') || size < 0) return nullptr;
    std::shared_ptr<CacheEntry> entry;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) return nullptr;
        const auto found = entries_.find(key);
        if (found != entries_.end()) {
            entry = found->second;
        } else {
            const std::string name = NewNameLocked(key);
            std::string error;
            entry = CacheEntry::Create(context_, FilesFor(name), key, &error);
            if (entry == nullptr) {
                Log(LL_ERROR, "[CACHE] cannot cache %s: %s", key, error.c_str());
                return nullptr;
            }
            names_.insert(name);
            entries_.emplace(key, entry);
        }
        const AERROR opened = entry->AddOpen(mode, size, fetcher);
        if (opened != SUCCESS) {
            Log(LL_ERROR, "[CACHE] cannot open %s: %d", key, static_cast<int>(opened));
            return nullptr;
        }
    }
    Trim(false);
    std::weak_ptr<DiskCache> self = weak_from_this();
    return std::make_shared<CacheObject>(entry, context_, [self](bool released) {
        if (std::shared_ptr<DiskCache> cache = self.lock()) cache->Trim(released);
    });
}

void DiskCache::Close(const char* key) {
    if (key == nullptr) return;
    std::shared_ptr<CacheEntry> entry;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(key);
        if (found == entries_.end()) return;
        entry = found->second;
    }
    // Outside the lock: the last close waits for the entry's read-ahead.
    entry->ReleaseOpen();
    Trim(true);
}

AERROR DiskCache::Rekey(const char* oldKey, const char* newKey, const char* extra) {
    if (oldKey == nullptr || newKey == nullptr || *newKey == '\0') return INVALID_PARAMETER;
    if (strcmp(oldKey, newKey) == 0) return SUCCESS;
    std::shared_ptr<CacheEntry> replaced;
    AERROR result = SUCCESS;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_) return CACHE_NOT_OPENED;
        // Whatever was cached for the new key is the content of a replaced file.
        int replacedOpens = 0;
        const auto target = entries_.find(newKey);
        if (target != entries_.end()) {
            replaced = target->second;
            replacedOpens = replaced->OpenCount();
            if (replaced->UnsentBytes() > 0) {
                Log(LL_WARNING, "[CACHE] %s replaced by %s: %llu bytes never uploaded are dropped",
                    newKey, oldKey, static_cast<unsigned long long>(replaced->UnsentBytes()));
            }
            replaced->Forget(true);
            names_.erase(replaced->Name());
            entries_.erase(target);
        }
        const auto source = entries_.find(oldKey);
        if (source != entries_.end()) {
            const std::shared_ptr<CacheEntry> moved = source->second;
            entries_.erase(source);
            result = moved->Rekey(newKey, extra != nullptr ? extra : "", replacedOpens);
            entries_.emplace(newKey, moved);
        }
        SaveIndexLocked(true);
    }
    // Outside the lock: the replaced entry's read-ahead may still be inside a
    // fetch of the node that goes with it.
    if (replaced != nullptr) replaced->StopReadAhead();
    return result;
}

size_t DiskCache::EntryCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

std::vector<std::string> DiskCache::UnsentKeys() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> keys;
    for (const auto& item : entries_) {
        if (item.second->UnsentBytes() > 0) keys.push_back(item.first);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

void DiskCache::Trim(bool released) {
    if (released) ++releases_;
    if (context_->usedBytes.load() <= maxBytes_) {
        overLimitWarned_ = false;
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t releases = releases_.load();
    // Only a close or a commit makes new entries evictable.
    if (stopped_ || releases == fruitlessTrimAt_) return;
    std::vector<std::pair<uint64_t, std::shared_ptr<CacheEntry>>> byAge;
    byAge.reserve(entries_.size());
    for (const auto& item : entries_)
        byAge.emplace_back(item.second->LastUse(), item.second);
    std::sort(byAge.begin(), byAge.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    bool evicted = false;
    for (const auto& item : byAge) {
        if (context_->usedBytes.load() <= maxBytes_) break;
        const std::shared_ptr<CacheEntry>& entry = item.second;
        if (!entry->EvictIfIdle()) continue;
        entries_.erase(entry->Key());
        names_.erase(entry->Name());
        evicted = true;
    }
    if (evicted) SaveIndexLocked(false);
    if (context_->usedBytes.load() <= maxBytes_) {
        overLimitWarned_ = false;
        return;
    }
    fruitlessTrimAt_ = releases;
    if (!overLimitWarned_.exchange(true)) {
        Log(LL_WARNING,
            "[CACHE] %llu bytes cached, over the limit of %llu: %llu bytes are not uploaded yet "
            "and the rest belongs to open files, so nothing more can be evicted",
            static_cast<unsigned long long>(context_->usedBytes.load()),
            static_cast<unsigned long long>(maxBytes_),
            static_cast<unsigned long long>(context_->unsentBytes.load()));
    }
}

CacheEntry::Files DiskCache::FilesFor(const std::string& name) const {
    CacheEntry::Files files;
    files.name = name;
    files.data = dataDir_ + "/" + name + kDataSuffix;
    files.record = dataDir_ + "/" + name + kRecordSuffix;
    return files;
}

std::string DiskCache::NewNameLocked(const std::string& key) const {
    char base[17];
    snprintf(base, sizeof(base), "%016llx", static_cast<unsigned long long>(HashKey(key)));
    std::string name = base;
    // Two keys with one hash: the later one gets a numbered name.
    for (int number = 1; names_.count(name) != 0; ++number) {
        name = std::string(base) + "-" + std::to_string(number);
    }
    return name;
}

bool DiskCache::SaveIndexLocked(bool durable) {
    std::vector<std::pair<uint64_t, IndexEntry>> byAge;
    for (const auto& item : entries_) {
        byAge.push_back({item.second->LastUse(), IndexEntry{item.second->Name(), item.first}});
    }
    std::sort(byAge.begin(), byAge.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    IndexRecord index;
    index.blockSize = context_->blockSize;
    for (auto& item : byAge)
        index.entries.push_back(std::move(item.second));
    std::string error;
    if (!ReplaceFileContent(dir_ + "/index", EncodeIndexRecord(index), durable, &error)) {
        Log(LL_ERROR, "[CACHE] %s", error.c_str());
        return false;
    }
    return true;
}

void DiskCache::Log(LOGLEVEL level, const char* format, ...) const {
    if (context_->log == nullptr) return;
    va_list args;
    va_start(args, format);
    context_->log->LogV(level, format, args);
    va_end(args);
}
