// Construction, accessors, paths and attributes of a file node.
#include "tree/file.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <locale>
#include <sstream>

#include "foundation/string_utils.h"
#include "foundation/time_utils.h"
#include "libfilesystem/entry_points.h"
#include "services/log.h"
#include "tree/filesystem_view.h"

namespace {

// The daemon's own user and group own every item. Read once: two system calls
// per getattr were a twentieth of the daemon's CPU in a repeated `ls -lR`.
uid_t OwnerUid() {
    static const uid_t uid = getuid();
    return uid;
}
gid_t OwnerGid() {
    static const gid_t gid = getgid();
    return gid;
}

// The current local time as an RFC 3339 text, as records of new items carry it.
std::string NowAsRFC3339() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    return TMToRFC3339(&local);
}

std::string DoublePercent(std::string text) {
    replace_all(text, "%", "%%");
    return text;
}

}  // namespace

File::File(std::shared_ptr<IProtocol_V2> protocol, IFileSystemInternal* fs, IFSConfig* config,
           const _FS_FILE_V2* record, File* parent, INotifier* notifier)
    : config_(config),
      notifier_(notifier),
      protocol_(std::move(protocol)),
      fileSystem_(fs),
      serial_(gn.fetch_add(1) + 1) {
    parent_.Set(parent, nullptr);
    if (parent == nullptr) hashes_ = std::make_unique<KeyIndex>();
    children_.map.max_load_factor(1.0);
    if (protocol_ && (protocol_->GetCapabilities() & PROTOCOL_CAP_SERVER_TIME_OFFSET) != 0) {
        serverTime_.fromServer = AdjustServerTimeOffset;
        serverTime_.toServer = AdjustOffsetForServerTime;
    }
    auto info = std::make_shared<_FS_FILE_EXT>();
    if (record == nullptr) {
        info->modifyTime = NowAsRFC3339();
        info->accessTime = info->modifyTime;
        info->createTime = info->modifyTime;
        info->attributes = FILE_ATTRIBUTE_FOLDER | FILE_ATTRIBUTE_ROOT;
        if (protocol_) {
            std::string key(65536, '\0');
            unsigned long length = key.size();
            if (protocol_->GetRootKey(key.data(), &length) == SUCCESS) {
                key.resize(std::min<size_t>(length, strnlen(key.data(), key.size())));
                info->key = key;
            }
        }
    } else {
        _FS_FILE_V2 copy(*record);
        copy.createTime = serverTime_.fromServer(copy.createTime.c_str());
        copy.accessTime = serverTime_.fromServer(copy.accessTime.c_str());
        copy.modifyTime = serverTime_.fromServer(copy.modifyTime.c_str());
        *info = copy;
    }
    remoteKey_ = info->key;
    content_.SetFetchableSize(info->size);
    info_ = info;
    if (IsFolder()) AddMarkerFiles();
}

File::~File() = default;

void File::SetParent(File* parent) {
    // A folder being constructed (adding its marker files) is not yet held
    // by a shared pointer; its children keep the plain pointer only.
    std::shared_ptr<File> reference = parent != nullptr ? parent->weak_from_this().lock() : nullptr;
    parent_.Set(parent, std::move(reference));
}

void File::AddMarkerFiles() {
    _FS_FILE_V2 marker;
    marker.attributes = FILE_ATTRIBUTE_FILE;
    marker.size = 0;
    marker.modifyTime = NowAsRFC3339();
    marker.accessTime = marker.modifyTime;
    marker.createTime = marker.modifyTime;
    for (const char* name : {".ql_disablethumbnails", ".ql_disablecache"}) {
        marker.name = name;
        AddChild(&marker, true);
    }
}

void* File::GetContext() {
    return Info()->context.get();
}

_FS_CONFIG File::GetConfig() const {
    if (config_ == nullptr) return _FS_CONFIG{};
    return config_->GetConfig();
}

std::shared_ptr<IFSEvent> File::GetFSEvent() const {
    return fileSystem_ != nullptr ? fileSystem_->GetFSEvent() : nullptr;
}

std::shared_mutex& File::PlaceGate() {
    static std::shared_mutex detached;
    return fileSystem_ != nullptr ? fileSystem_->PlaceGate() : detached;
}

std::string File::MountPoint() const {
    return fileSystem_ != nullptr ? fileSystem_->GetLetter() : std::string();
}

File* File::GetRootFile() {
    File* node = this;
    while (node->Parent() != nullptr)
        node = node->Parent();
    return node;
}

std::string File::Name() const {
    return Info()->name;
}
std::string File::Key() const {
    return Info()->key;
}

std::string File::RemoteKey() const {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return remoteKey_;
}

// A node that has left the tree finds itself as the root, without an index:
// what it would index there could never be reported.
void File::AddHash(const std::string& key, std::shared_ptr<File> file) {
    if (hashes_) hashes_->Add(key, std::move(file));
}

void File::RemoveHash(const std::string& key) {
    if (hashes_) hashes_->Remove(key);
}

std::shared_ptr<File> File::FindHash(const std::string& key) {
    return hashes_ ? hashes_->Find(key) : nullptr;
}

void File::ClearHashForChanges() {
    if (hashes_) hashes_->Clear();
}

void File::IndexForChanges(const std::shared_ptr<File>& node) {
    if (!node || !protocol_ || (protocol_->GetCapabilities() & PROTOCOL_CAP_REPORTS_CHANGES) == 0) {
        return;
    }
    const std::string key = node->Key();
    if (!key.empty()) GetRootFile()->AddHash(key, node);
}

void File::ReportError(int kind, AERROR code, void* cookie) {
    if (auto sink = GetFSEvent()) {
        sink->Error(kind, code, BuildLocalPathA('/').c_str(), BuildOriginPathA().c_str(), cookie);
    }
}

std::string File::BuildPathA(char sep) const {
    std::deque<std::string> names;
    for (const File* node = this; node != nullptr; node = node->Parent()) {
        names.push_front(node->Name());
    }
    std::string path;
    for (const auto& name : names) {
        if (!path.empty()) path += sep;
        path += name;
    }
    return path;
}

std::wstring File::BuildPath(char sep) const {
    return s2ws(BuildPathA(sep));
}

std::string File::BuildLocalPathA(char sep) const {
    return MountPoint() + "/" + BuildPathA(sep);
}

std::string File::BuildOriginPathA() const {
    const std::string label = fileSystem_ != nullptr ? fileSystem_->GetVolumeLabel() : "";
    return label + "/" + BuildPathA('/');
}

std::wstring File::BuildPathForCache(char sep) const {
    // Keys start with the separator ("\dir\file.txt"). Cache keys are file
    // names on some hosts: ':' is escaped (as "%3A", and '%' itself as
    // "%25") so that every path keeps a distinct, stable key.
    std::wostringstream key;
    key << static_cast<wchar_t>(sep);
    for (wchar_t c : BuildPath(sep)) {
        if (c == L':') {
            key << L"%3A";
        } else if (c == L'%') {
            key << L"%25";
        } else {
            key << c;
        }
    }
    return key.str();
}

std::string File::GetFileNameForPrint() const {
    return DoublePercent(Name());
}
std::wstring File::GetFileNameForPrintW() const {
    return s2ws(GetFileNameForPrint());
}

std::string File::BuildPathForPrint(char sep, bool raw) const {
    std::deque<std::string> names;
    for (const File* node = this; node != nullptr; node = node->Parent()) {
        names.push_front(raw ? node->Name() : DoublePercent(node->Name()));
    }
    std::string path;
    for (const auto& name : names) {
        if (!path.empty()) path += sep;
        path += name;
    }
    return path;
}

std::wstring File::BuildPathForPrintW(char sep, bool raw) const {
    return s2ws(BuildPathForPrint(sep, raw));
}

int File::getattr(struct stat* st) {
    auto info = Info();
    if (!info) return 0;
    memset(st, 0, sizeof(*st));
    st->st_size = info->size;
    st->st_ino = serial_;
    st->st_nlink = 1;
    st->st_uid = OwnerUid();
    st->st_gid = OwnerGid();
    if ((info->attributes & FILE_ATTRIBUTE_FOLDER) != 0) {
        // A fixed size for every folder, whatever it holds.
        st->st_size = 1446;
        // The child count is kept apart from the child map so that a busy
        // child lock never blocks getattr.
        st->st_nlink = children_.count.load() + 2;
    }
    st->st_atime = RFC3339ToTM(info->accessTime.c_str());
    st->st_mtime = RFC3339ToTM(info->modifyTime.c_str());
    st->st_ctime = RFC3339ToTM(info->createTime.c_str());
    st->st_mode = (info->attributes & FILE_ATTRIBUTE_FOLDER) != 0 ? 040755 : 0644;
    if ((info->attributes & FILE_ATTRIBUTE_FILE) != 0) st->st_mode |= 0x8000;
    if ((info->attributes & FILE_ATTRIBUTE_WRITABLE) != 0) st->st_mode |= 2;
    return 0;
}

int File::access(int) {
    return 0;
}

AERROR File::SetFileAttributes(unsigned long, IExportService*) {
    return SUCCESS;
}

void File::Notify(NOTIFYEVENT event, const std::wstring& path, const std::wstring* newPath) {
    if (notifier_ == nullptr) return;
    notifier_->ChangeNotify(event, 5, path.c_str(),
                            newPath != nullptr ? newPath->c_str() : nullptr);
}

bool File::HasFeature(FS_FEATURE feature) const {
    if (fileSystem_ == nullptr) return false;
    return (static_cast<uint32_t>(fileSystem_->GetFeature()) & feature) != 0;
}

long File::ToServerTime(long t) const {
    // The reverse of how the server's own times are read: its wall-clock
    // text of the instant, read as UTC.
    if (t == 0 || serverTime_.toServer == NoAdjustOffsetForServerTime) return t;
    return RFC3339ToLocalTM(serverTime_.toServer(t).c_str());
}

AERROR File::SetFileTime(long createTime, long accessTime, long modifyTime) {
    AERROR result = SUCCESS;
    const std::string key = RemoteKey();
    if (protocol_ && !key.empty() && (protocol_->GetCapabilities() & PROTOCOL_CAP_SET_TIME) != 0) {
        void* cookie = nullptr;
        result =
            protocol_->SetItemTime(key.c_str(), ToServerTime(createTime), ToServerTime(accessTime),
                                   ToServerTime(modifyTime), &cookie);
        if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    }
    if (result != SUCCESS) return result;
    // The node's times are local wall-clock texts, as it reads them back.
    auto local = [](long seconds) {
        struct tm broken;
        time_t t = seconds;
        localtime_r(&t, &broken);
        return TMToRFC3339(&broken);
    };
    std::lock_guard<std::mutex> lock(dataMutex_);
    auto next = std::make_shared<_FS_FILE_EXT>(*Info());
    if (createTime != 0) next->createTime = local(createTime);
    if (accessTime != 0) next->accessTime = local(accessTime);
    if (modifyTime != 0) next->modifyTime = local(modifyTime);
    PublishInfo(next);
    return SUCCESS;
}
