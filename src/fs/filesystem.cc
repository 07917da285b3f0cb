// The file system object: names, features, configuration and protocols.
#include "fs/filesystem.h"

#include <cstdlib>
#include <cstring>

#include "foundation/string_utils.h"
#include "fs/default_filter.h"
#include "libfilesystem/entry_points.h"
#include "services/async_queue.h"
#include "services/log.h"
#include "tree/file.h"

namespace {

struct ConfigSetting {
    const char* key;
    const char* path;
    const char* defaultValue;
};

// Registered in the order of _FS_CONFIG; every value is in milliseconds.
// "fetchasync" is also the age after which a listed folder is listed again.
constexpr ConfigSetting kSettings[CONFIG_COUNT] = {
    {"fstimeout", "/fs/timeout", "20000"},          {"fetchasync", "/fs/fetch/async", "120000"},
    {"fetchsync", "/fs/fetch/sync", "60000"},       {"readtimeout", "/fs/read/timeout", "10000"},
    {"writetimeout", "/fs/write/timeout", "10000"}, {"timeout_reset", "/fs/reset", "10000"},
    {"fileinfo_interval", "/fs/fileinfo", "3000"},  {"changes_interval", "/fs/changes", "5000"},
    {"quota_interval", "/fs/quota", "5000"},        {"callback_interval", "/fs/callback", "300"},
};

}  // namespace

namespace {

template <typename T>
T LockedRead(std::mutex& mutex, const T& value) {
    std::lock_guard<std::mutex> lock(mutex);
    return value;
}

template <typename T>
AERROR LockedWrite(std::mutex& mutex, T& value, T next) {
    std::lock_guard<std::mutex> lock(mutex);
    value = std::move(next);
    return SUCCESS;
}

}  // namespace

FileSystem::FileSystem(std::wstring mountPointWide, std::string volumeName, std::string mountPoint,
                       FS_FEATURE features)
    : fsName_("skfs"),
      volumeLabel_(std::move(volumeName)),
      letter_(mountPoint),
      mountPoint_(std::move(mountPoint)),
      mountPointWide_(std::move(mountPointWide)),
      features_(features) {
    protocols_.max_load_factor(1.0);
    for (const auto& setting : kSettings) {
        config_.AddConfiguration(setting.key, setting.path, setting.defaultValue);
    }
    ApplyConfig();
    filter_ = std::make_shared<DefaultFilter>((features & FEATURE_REALTIME_UPLOAD) != 0);
    workerCount_ = 4;
    // The workers run on the host's queue for the file system's whole life.
    // Without a queue each runs inline once, drains and returns.
    for (int i = 0; i < workerCount_; ++i)
        QueueAsync(this, nullptr);
    std::lock_guard<std::mutex> lock(workersMutex_);
    workersOnQueue_ += workerCount_ - inlineRuns_.load();
}

FileSystem::~FileSystem() = default;

AERROR FileSystem::SetName(const char* what, std::string& name, const char* next) {
    std::lock_guard<std::mutex> lock(namesMutex_);
    const std::string text = next != nullptr ? next : "";
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Set %s name for %s, from %s to %s", what,
             letter_.c_str(), name.c_str(), text.c_str());
    name = text;
    return SUCCESS;
}

AERROR FileSystem::SetFSName(const char* name) {
    return SetName("filesystem", fsName_, name);
}

AERROR FileSystem::SetVolName(const char* name) {
    return SetName("volume", volumeLabel_, name);
}

AERROR FileSystem::SetFSFilter(std::shared_ptr<IFSFilter> filter) {
    return LockedWrite(pointersMutex_, filter_, std::move(filter));
}

std::shared_ptr<IFSFilter> FileSystem::GetFSFilter() {
    return LockedRead(pointersMutex_, filter_);
}

AERROR FileSystem::SetFSEvent(std::shared_ptr<IFSEvent> sink) {
    return LockedWrite(pointersMutex_, fsEvent_, std::move(sink));
}

std::shared_ptr<IFSEvent> FileSystem::GetFSEvent() {
    return LockedRead(pointersMutex_, fsEvent_);
}

AERROR FileSystem::SetFeature(FS_FEATURE bits) {
    features_ |= bits;
    return SUCCESS;
}

AERROR FileSystem::RemoveFeature(FS_FEATURE bits) {
    features_ &= ~static_cast<uint32_t>(bits);
    return SUCCESS;
}

FS_FEATURE FileSystem::GetFeature() {
    return static_cast<FS_FEATURE>(features_.load());
}

int FileSystem::GetProtocolCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return protocolCount_;
}

AERROR FileSystem::GetProtocol(int index, std::shared_ptr<IProtocol_V2>& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index < 0 || index >= protocolCount_) return INVALID_PARAMETER;
    out = protocolOrder_[index]->protocol;
    return SUCCESS;
}

AERROR FileSystem::SetConfiguration(const char* json) {
    if (json == nullptr) return ACCESS_VIOLATION;
    try {
        std::lock_guard<std::mutex> lock(configMutex_);
        config_.Parse(json);
    } catch (AERROR) {
        return JSON_PARSE_FAILED;
    } catch (const std::exception&) {
        return JSON_PARSE_FAILED;
    }
    // New values take effect at once: requests already running keep the
    // values they read.
    ApplyConfig();
    return SUCCESS;
}

void FileSystem::ApplyConfig() {
    std::lock_guard<std::mutex> lock(configMutex_);
    for (size_t i = 0; i < CONFIG_COUNT; ++i) {
        configValues_[i] = atol(config_.GetValue(kSettings[i].key).c_str());
    }
}

_FS_CONFIG FileSystem::GetConfig() {
    std::lock_guard<std::mutex> lock(configMutex_);
    _FS_CONFIG values;
    values.fstimeout = configValues_[CONFIG_FSTIMEOUT];
    values.fetchasync = configValues_[CONFIG_FETCHASYNC];
    values.fetchsync = configValues_[CONFIG_FETCHSYNC];
    values.readtimeout = configValues_[CONFIG_READTIMEOUT];
    values.writetimeout = configValues_[CONFIG_WRITETIMEOUT];
    values.timeout_reset = configValues_[CONFIG_TIMEOUT_RESET];
    values.fileinfo_interval = configValues_[CONFIG_FILEINFO_INTERVAL];
    values.changes_interval = configValues_[CONFIG_CHANGES_INTERVAL];
    values.quota_interval = configValues_[CONFIG_QUOTA_INTERVAL];
    values.callback_interval = configValues_[CONFIG_CALLBACK_INTERVAL];
    return values;
}

AERROR FileSystem::AddProtocol(std::shared_ptr<IProtocol_V2> protocol, const char* /*name*/) {
    if (!protocol) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    std::string identity(65536, '\0');
    const AERROR result = protocol->GetIdentity(identity.data(), identity.size());
    if (result != SUCCESS) return result;
    identity.resize(strnlen(identity.data(), identity.size()));
    if (protocols_.count(identity) != 0) return FS_ALREADY_AUTHORIZED;

    auto entry = std::make_shared<_FS_PROTOCOL>();
    entry->protocol = protocol;
    entry->root = std::make_shared<File>(protocol, this, this, nullptr, nullptr, notifier_.load());
    entry->root->AddHash(entry->root->Key(), entry->root);
    protocols_.emplace(identity, entry);
    protocolOrder_.push_back(entry);
    ++protocolCount_;
    __LOG__A(CurrentLogger(), LL_INFO,
             "[FILESYSTEM] Add protocol %s to filesystem %s(Total %d protocol(s))",
             identity.c_str(), letter_.c_str(), protocolCount_);
    return SUCCESS;
}

std::string FileSystem::GetLetter() {
    return letter_;
}

std::string FileSystem::GetVolumeLabel() {
    std::lock_guard<std::mutex> lock(namesMutex_);
    return volumeLabel_;
}

std::string FileSystem::GetMountPoint() {
    return mountPoint_;
}

void FileSystem::SetNotifier(INotifier* notifier) {
    notifier_ = notifier;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : protocolOrder_) {
        if (entry->root) entry->root->SetNotifier(notifier);
    }
}

std::shared_ptr<_FS_HANDLE_EXT> FileSystem::GetHandle(unsigned long long id) {
    // Looked up under the map's lock: a lookup racing an insert that rehashes
    // the map would read freed memory.
    std::lock_guard<std::mutex> lock(handleMapMutex_);
    auto it = handleMap_.find(id);
    return it == handleMap_.end() ? nullptr : it->second;
}

unsigned long long FileSystem::RegisterHandle(std::shared_ptr<_FS_HANDLE_EXT> record,
                                              std::shared_ptr<File> file,
                                              const std::string& process, const std::string& path) {
    const unsigned long long id = ++handleCounter_;
    record->id = id;
    record->file = std::move(file);
    record->process = process;
    record->path = path;
    std::lock_guard<std::mutex> lock(handleMapMutex_);
    handleMap_[id] = record;
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] [%s:%s] Handle %llu for %s created",
             fsName_.c_str(), process.c_str(), id,
             record->mode == HANDLE_MODE_READ ? "READ" : "WRITE");
    return id;
}

void FileSystem::UnregisterHandle(unsigned long long id, const std::string& process) {
    std::lock_guard<std::mutex> lock(handleMapMutex_);
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] [%s:%s] Handle %llu destroyed",
             letter_.c_str(), process.c_str(), id);
    handleMap_.erase(id);
}
