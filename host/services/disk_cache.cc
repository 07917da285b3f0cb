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

#include "common/stable_hash.h"
#include "services/cache_object.h"
#include "services/cache_records.h"
#include "services/legacy_records.h"
#include "services/make_dirs.h"
#include "services/name_suffix.h"
#include "services/queued_call.h"

namespace {

constexpr char kDataSuffix[] = ".data";
constexpr char kTempSuffix[] = ".tmp";  // left by record saves of older versions
// The least that making room on a full disk frees, in blocks.
constexpr uint64_t kRoomBlocks = 256;

// A stable hash, so an entry gets the same name in every run.
uint64_t HashKey(const std::string& key) {
    return StableHash(key);
}

bool IsValidBlockSize(uint32_t size) {
    return size >= 512 && size <= (64u << 20);
}

// Imports the records an older version left in `dataDir`, then deletes them.
bool ImportLegacy(CacheIndex* index, const LegacyRecords& legacy, const std::string& dataDir,
                  const std::string& root, ILog* log) {
    for (const std::string& name : legacy.unreadable) {
        // Kept as it is: it may hold written data that a later version can read.
        if (log != nullptr) {
            log->Log(LL_WARNING, "[CACHE] cannot read %s/%s.map; leaving it alone", dataDir.c_str(),
                     name.c_str());
        }
    }
    if (!legacy.records.empty() && index->Import(legacy.records) != SUCCESS) return false;
    // Rows already in the index win over records, so an import repeated
    // after a crash changes nothing.
    for (const EntryRecord& record : legacy.records)
        unlink((dataDir + "/" + record.name + ".map").c_str());
    unlink((root + "/index").c_str());  // the older version's list of entries
    if (log != nullptr && !legacy.records.empty()) {
        log->Log(LL_INFO, "[CACHE] %s: %zu entries moved into its index", root.c_str(),
                 legacy.records.size());
    }
    return true;
}

}  // namespace

Status DiskCache::Create(const std::string& dir, uint64_t maxBytes, IAsyncQ* queue, ILog* log,
                         std::shared_ptr<DiskCache>* created, const DiskCacheOptions& options) {
    std::string root = dir;
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    if (root.empty()) return Status::Error("no cache directory given");
    if (!IsValidBlockSize(options.blockSize)) {
        return Status::Error("cache block size must be between 512 bytes and 64 MiB");
    }
    Status status = MakeDirs(root + "/data");
    if (!status.ok()) return status;
    std::unique_ptr<DirLock> lock;
    status = DirLock::Acquire(root, &lock);
    if (!status.ok()) return status;

    auto context = std::make_shared<CacheContext>();
    context->blockSize = options.blockSize;
    context->readAheadBlocks = options.readAheadBlocks;
    context->maxFetchBlocks = std::max<uint32_t>(options.maxFetchBlocks, 1);
    context->queue = queue;
    context->log = log;
    context->folder = root;
    context->dataFolder = root + "/data";
    context->bootId = options.bootId;
    // Records of an older version are imported once; the folder keeps the
    // block size they were saved with.
    LegacyRecords legacy = ReadLegacyRecords(context->dataFolder);
    std::unique_ptr<CacheIndex> index;
    status =
        CacheIndex::Open(root + "/index.db",
                         legacy.blockSize != 0 ? legacy.blockSize : options.blockSize, log, &index);
    if (!status.ok()) return status;
    context->blockSize = index->BlockSize();
    if (!ImportLegacy(index.get(), legacy, context->dataFolder, root, log)) {
        return Status::Error("cannot import the entries of " + root + " into its index");
    }
    context->index = index.get();
    std::shared_ptr<DiskCache> cache(
        new DiskCache(root, maxBytes, context, std::move(lock), std::move(index)));
    cache->Restore(std::set<std::string>(legacy.unreadable.begin(), legacy.unreadable.end()));
    cache->Trim(true);
    *created = std::move(cache);
    return Status::Ok();
}

DiskCache::DiskCache(std::string dir, uint64_t maxBytes, std::shared_ptr<CacheContext> context,
                     std::unique_ptr<DirLock> lock, std::unique_ptr<CacheIndex> index)
    : dir_(std::move(dir)),
      dataDir_(dir_ + "/data"),
      maxBytes_(maxBytes),
      context_(std::move(context)),
      lock_(std::move(lock)),
      index_(std::move(index)) {}

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
    RemoveDropped();
    std::lock_guard<std::mutex> lock(mutex_);
    SaveLastUsesLocked();
    entries_.clear();
}

namespace {

// Dropped entries that are removed at once, on the queue, without waiting
// for the host.
constexpr size_t kDropBatch = 256;

// The names of the data files in `dataDir`, without their ending; removes
// the temporary files an interrupted save of an older version left.
std::set<std::string> ScanDataFolder(const std::string& dataDir) {
    std::set<std::string> dataFiles;
    DIR* folder = opendir(dataDir.c_str());
    if (folder == nullptr) return dataFiles;
    while (const dirent* item = readdir(folder)) {
        const std::string file = item->d_name;
        if (EndsWith(file, kTempSuffix)) {
            unlink((dataDir + "/" + file).c_str());
        } else if (EndsWith(file, kDataSuffix)) {
            dataFiles.insert(file.substr(0, file.size() - strlen(kDataSuffix)));
        }
    }
    closedir(folder);
    return dataFiles;
}

}  // namespace

void DiskCache::Restore(const std::set<std::string>& kept) {
    std::lock_guard<std::mutex> lock(mutex_);
    names_ = kept;
    const std::set<std::string> dataFiles = ScanDataFolder(dataDir_);
    std::vector<std::string> dropped;
    // Least recently used first, so that the clock keeps their order.
    for (const EntryRecord& record : index_->Load()) {
        if (IsValidEntryName(record.name)) {
            RestoreEntryLocked(record, dataFiles, &dropped);
        } else {
            names_.insert(record.name);  // not a row this version wrote: left alone
        }
    }
    index_->Remove(dropped);
    // Data without a row was never vouched for: nothing in it is known.
    for (const std::string& name : dataFiles) {
        if (names_.count(name) == 0 && IsValidEntryName(name)) {
            unlink(FilesFor(name).data.c_str());
        }
    }
    Log(LL_INFO, "[CACHE] %s: %zu entries, %llu bytes held, %llu not yet uploaded", dir_.c_str(),
        entries_.size(), static_cast<unsigned long long>(context_->usedBytes.load()),
        static_cast<unsigned long long>(context_->unsentBytes.load()));
}

void DiskCache::RestoreEntryLocked(const EntryRecord& record,
                                   const std::set<std::string>& dataFiles,
                                   std::vector<std::string>* dropped) {
    if (entries_.count(record.key) != 0) {
        Log(LL_WARNING, "[CACHE] the row %s repeats the key of another entry; leaving it alone",
            record.name.c_str());
        names_.insert(record.name);
        return;
    }
    if (dataFiles.count(record.name) == 0) {
        Log(LL_WARNING, "[CACHE] the data of %s is missing; dropping the entry",
            record.key.c_str());
        dropped->push_back(record.name);
        return;
    }
    std::shared_ptr<CacheEntry> entry;
    const Status restored = CacheEntry::Restore(context_, FilesFor(record.name), record, &entry);
    names_.insert(record.name);
    if (!restored.ok()) {
        // Kept as it is: it may hold written data that a later version can read.
        Log(LL_WARNING, "[CACHE] %s; leaving it alone", restored.message().c_str());
        return;
    }
    entry->Touch();
    entries_.emplace(record.key, std::move(entry));
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
    const AERROR saved = SaveLastUsesLocked();
    return result != SUCCESS ? result : saved;
}

AERROR DiskCache::Remove(const char* key) {
    if (key == nullptr) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return CACHE_NOT_OPENED;
    const auto found = entries_.find(key);
    if (found == entries_.end()) return FILE_NOT_FOUND;
    if (found->second->OpenCount() > 0) return SHARING_VIOLATION;
    found->second->Forget(true);
    const std::string name = found->second->Name();
    index_->Remove({name});
    names_.erase(name);
    entries_.erase(found);
    return SUCCESS;
}

void DiskCache::Drop(const std::string& key) {
    bool queue = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(key);
        if (stopped_ || found == entries_.end() || found->second->OpenCount() > 0) return;
        // A new entry of the key gets another name while this one's files
        // wait: the name stays taken until they are gone.
        found->second->Forget(false);
        dropped_.push_back(found->second->Name());
        entries_.erase(found);
        queue = dropped_.size() == kDropBatch;
    }
    // The host removes them now and then; a long run of deletes does not
    // wait for it.
    if (!queue) return;
    std::weak_ptr<DiskCache> self = weak_from_this();
    const auto run = [self] {
        if (auto cache = self.lock()) cache->RemoveDropped();
    };
    if (!RunQueued(context_->queue, run)) RemoveDropped();
}

void DiskCache::RemoveDropped() {
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        names.swap(dropped_);
    }
    for (const std::string& name : names)
        unlink(FilesFor(name).data.c_str());
    index_->Remove(names);
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::string& name : names)
        names_.erase(name);
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
            const Status created = CacheEntry::Create(context_, FilesFor(name), key, &entry);
            if (!created.ok()) {
                Log(LL_ERROR, "[CACHE] cannot cache %s: %s", key, created.message().c_str());
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
    const auto grown = [self](bool released) {
        if (std::shared_ptr<DiskCache> cache = self.lock()) cache->Trim(released);
    };
    const auto room = [self](uint64_t bytes) {
        std::shared_ptr<DiskCache> cache = self.lock();
        return cache != nullptr && cache->MakeRoom(bytes);
    };
    return std::make_shared<CacheObject>(entry, context_, grown, room);
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
            index_->Remove({replaced->Name()});
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

std::vector<DiskCache::Unsent> DiskCache::UnsentEntries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Unsent> unsent;
    for (const auto& item : entries_) {
        const uint64_t bytes = item.second->UnsentBytes();
        if (bytes == 0) continue;
        unsent.push_back(Unsent{item.first, item.second->Origin(), item.second->Size(), bytes,
                                item.second->MayBeIncomplete()});
    }
    std::sort(unsent.begin(), unsent.end(),
              [](const Unsent& a, const Unsent& b) { return a.key < b.key; });
    return unsent;
}

void DiskCache::SetRemoteIdentities(std::map<const IProtocol_V2*, std::string> identities) {
    std::lock_guard<std::mutex> lock(mutex_);
    identities_ = std::move(identities);
}

void DiskCache::NoteOrigin(const char* key, const _CACHE_ORIGIN* origin) {
    if (key == nullptr || origin == nullptr) return;
    std::shared_ptr<CacheEntry> entry;
    std::string remote;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(key);
        if (found == entries_.end()) return;
        entry = found->second;
        const auto identity = identities_.find(origin->protocol);
        if (identity != identities_.end()) remote = identity->second;
    }
    EntryOrigin next = entry->Origin();
    if (origin->path != nullptr) {
        next.known = true;
        next.path = origin->path;
    }
    if (origin->protocol != nullptr) next.remote = remote;
    if (const _FS_FILE_V2* base = origin->base) {
        next.based = !base->key.empty();
        next.baseSize = next.based ? base->size : 0;
        next.baseModifyTime = next.based ? base->modifyTime : "";
        next.baseExtra = next.based ? base->extra : "";
    }
    entry->SetOrigin(next);
    // The content of a deleted file goes when no one has it open: kept, it
    // would hold memory and disk until evicted.
    if (next.BelongsNowhere()) Drop(key);
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
    EvictLocked([this] { return context_->usedBytes.load() <= maxBytes_; });
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

bool DiskCache::MakeRoom(uint64_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return false;
    // Generously: a full disk stays full, and each refusal costs a retry.
    bytes = std::max<uint64_t>(bytes, kRoomBlocks * context_->blockSize);
    const uint64_t before = context_->usedBytes.load();
    const bool evicted = EvictLocked([&] {
        const uint64_t now = context_->usedBytes.load();
        return now < before && before - now >= bytes;
    });
    if (evicted) {
        Log(LL_INFO, "[CACHE] %s is full: evicted cached copies of uploaded files to make room",
            dir_.c_str());
    }
    return evicted;
}

template <typename Enough>
bool DiskCache::EvictLocked(Enough&& enough) {
    std::vector<std::pair<uint64_t, std::shared_ptr<CacheEntry>>> byAge;
    byAge.reserve(entries_.size());
    for (const auto& item : entries_)
        byAge.emplace_back(item.second->LastUse(), item.second);
    std::sort(byAge.begin(), byAge.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> evicted;
    for (const auto& item : byAge) {
        if (enough()) break;
        // Only closed entries without written data go.
        const std::shared_ptr<CacheEntry>& entry = item.second;
        if (!entry->EvictIfIdle()) continue;
        entries_.erase(entry->Key());
        names_.erase(entry->Name());
        evicted.push_back(entry->Name());
    }
    // Their rows go in one transaction, before a new entry can take a name.
    index_->Remove(evicted);
    return !evicted.empty();
}

CacheEntry::Files DiskCache::FilesFor(const std::string& name) const {
    CacheEntry::Files files;
    files.name = name;
    files.data = dataDir_ + "/" + name + kDataSuffix;
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

AERROR DiskCache::SaveLastUsesLocked() {
    std::vector<std::pair<std::string, uint64_t>> uses;
    uses.reserve(entries_.size());
    for (const auto& item : entries_)
        uses.emplace_back(item.second->Name(), item.second->LastUse());
    // Durable, and with it every row saved before: the data of those rows
    // was synced when they were saved, and their names are synced here.
    if (!context_->SyncNewNames()) {
        Log(LL_ERROR, "[CACHE] cannot sync %s: %s", dataDir_.c_str(), strerror(errno));
        return CACHE_WRITE_FAILED;
    }
    return index_->SaveLastUses(uses, true);
}

void DiskCache::Log(LOGLEVEL level, const char* format, ...) const {
    if (context_->log == nullptr) return;
    va_list args;
    va_start(args, format);
    context_->log->LogV(level, format, args);
    va_end(args);
}
