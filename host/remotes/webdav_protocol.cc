#include "remotes/webdav_protocol.h"

#include <cstring>

#include "remotes/local_paths.h"
#include "remotes/local_record.h"
#include "remotes/protocol_text.h"
#include "remotes/webdav_record.h"

namespace {

constexpr char kRootKey[] = "/";
constexpr char kServerTemporaryPrefix[] = ".davfs.tmp";
constexpr size_t kMaxRefusedLogged = 1000;

Status MissingArgument(const char* what) {
    return Status::Error(INVALID_PARAMETER, std::string("no ") + what + " given");
}

}  // namespace

WebdavProtocol::WebdavProtocol(WebdavAddress address, HttpSettings settings)
    : log_(settings.log),
      http_(std::move(address), std::move(settings)),
      gate_(std::chrono::seconds(http_.TimeoutSeconds())) {}

Status WebdavProtocol::Check() {
    DavEntry root;
    const Status status = Stat(kRootKey, &root);
    const std::string server = http_.Address().Origin();
    const std::string share = http_.Address().Identity();
    if (status.ok() && root.folder) return Status::Ok();
    if (status.ok()) return Status::Error(share + " is a file, not a folder");
    if (status.code() == AUTH_FAILED) {
        const std::string& user = http_.Address().user;
        return Status::Error(status.code(),
                             "the WebDAV server " + server + " refused the login" +
                                 (user.empty() ? "" : " of " + user) + " (" + status.message() +
                                 "); check ~/.netrc, SKARVO_WEBDAV_PASSWORD or --password-file");
    }
    if (status.code() == CERT_INVALID || status.code() == SOCK_SSL_HANDSHAKE_FAILED) {
        return Status::Error(status.code(), "cannot trust the certificate of " + server + " (" +
                                                status.message() +
                                                "); --insecure accepts a self-signed certificate");
    }
    return Status::Error(status.code(), "cannot open " + share + ": " + status.message() + " (" +
                                            GetAERRORA(status.code()) + ")");
}

AERROR WebdavProtocol::GetIdentity(char* buffer, unsigned long length) {
    return CopyText(http_.Address().Identity(), buffer, length);
}

AERROR WebdavProtocol::GetRootKey(char* buffer, unsigned long* length) {
    if (length == nullptr) return INVALID_PARAMETER;
    const AERROR code = CopyText(kRootKey, buffer, *length);
    *length = strlen(kRootKey);
    return code;
}

unsigned int WebdavProtocol::GetCapabilities() {
    return PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_REPORTS_CHANGES | PROTOCOL_CAP_SET_TIME;
}

bool WebdavProtocol::IsValidName(const char* name) {
    return name != nullptr && IsAcceptableDavName(name);
}

AERROR WebdavProtocol::DescribeCookie(void* cookie, char* buffer, unsigned long length) {
    return CopyTextCut(CookieText(cookie), buffer, length);
}

void WebdavProtocol::ReleaseCookie(void* cookie) {
    FreeCookie(cookie);
}

void WebdavProtocol::ToRecord(const std::string& key, const DavEntry& entry, _FS_FILE_V2* record) {
    FillDavRecord(key, entry, record);
    if (!entry.folder) times_.Apply(key, record);
}

AERROR WebdavProtocol::SetItemTime(const char* key, long long /*createTime*/,
                                   long long /*accessTime*/, long long modifyTime, void** cookie) {
    if (key == nullptr) return ReportStatus(MissingArgument("key"), cookie);
    if (modifyTime == 0) return SUCCESS;
    std::string etag = etags_.Latest(key);
    if (etag.empty()) {
        DavEntry entry;
        const Status status = Stat(key, &entry);
        if (!status.ok()) return ReportStatus(status, cookie);
        if (entry.folder) return SUCCESS;
        etag = entry.etag;
    }
    struct timespec time {};
    time.tv_sec = static_cast<time_t>(modifyTime);
    times_.Set(key, etag, FormatRecordTime(time));
    return SUCCESS;
}

Status WebdavProtocol::Propfind(const std::string& key, int depth, bool quota,
                                std::vector<DavEntry>* entries) {
    HttpRequest request;
    request.method = "PROPFIND";
    request.path = http_.Address().PathOf(key, depth > 0);
    request.headers = {"Depth: " + std::to_string(depth),
                       "Content-Type: application/xml; charset=utf-8"};
    request.body = PropfindBody(quota);
    HttpResponse response;
    Status status = http_.Send(request, &response);
    if (!status.ok()) return status;
    std::vector<std::string> segments = http_.Address().base;
    for (const std::string& part : KeySegments(key))
        segments.push_back(part);
    status = ParseMultistatus(response.body, segments, entries);
    if (!status.ok()) status.set_message("PROPFIND " + request.path + ": " + status.message());
    return status;
}

Status WebdavProtocol::Stat(const std::string& key, DavEntry* entry) {
    std::vector<DavEntry> entries;
    Status status = Propfind(key, 0, key == kRootKey, &entries);
    if (!status.ok()) return status;
    if (entries.empty()) {
        return Status::Error(FAILED, "PROPFIND " + http_.Address().PathOf(key, false) +
                                         ": the server's answer names no item");
    }
    *entry = std::move(entries.front());
    return Status::Ok();
}

Status WebdavProtocol::StatRecord(const std::string& key, _FS_FILE_V2* record) {
    DavEntry entry;
    Status status = Stat(key, &entry);
    if (status.ok()) ToRecord(key, entry, record);
    return status;
}

AERROR WebdavProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
    DavEntry root;
    const Status status = Stat(kRootKey, &root);
    if (!status.ok()) return status.code();
    if (total != nullptr) *total = root.hasQuota ? root.quotaAvailable + root.quotaUsed : 0;
    if (used != nullptr) *used = root.hasQuota ? root.quotaUsed : 0;
    return SUCCESS;
}

AERROR WebdavProtocol::GetItem(const char* key, _FS_FILE_V2* record, void** cookie) {
    if (key == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key or record"), cookie);
    }
    return ReportStatus(StatRecord(key, record), cookie);
}

void WebdavProtocol::LogRefused(const std::string& what) {
    {
        std::lock_guard<std::mutex> lock(refusedMutex_);
        if (refused_.size() >= kMaxRefusedLogged || !refused_.insert(what).second) return;
    }
    if (log_ != nullptr) log_->Log(LL_WARNING, "webdav: %s", what.c_str());
}

bool WebdavProtocol::IsChildName(const std::string& folderKey, const DavEntry& entry,
                                 std::string* name) {
    std::vector<std::string> folder = http_.Address().base;
    for (const std::string& part : KeySegments(folderKey))
        folder.push_back(part);
    const std::vector<std::string>& path = entry.segments;
    if (path == folder) return false;  // the folder's own entry
    const bool inside =
        path.size() == folder.size() + 1 && std::equal(folder.begin(), folder.end(), path.begin());
    if (!inside || !IsAcceptableDavName(path.back())) {
        std::string shown;
        for (const std::string& part : path)
            shown += "/" + part;
        LogRefused(folderKey + ": the server listed \"" + shown + "\", which is not a usable name");
        return false;
    }
    *name = path.back();
    return name->compare(0, strlen(kServerTemporaryPrefix), kServerTemporaryPrefix) != 0;
}

Status WebdavProtocol::ReadFolder(const std::string& key, std::vector<_FS_FILE_V2>* records,
                                  FolderWatch::Entries* states) {
    std::vector<DavEntry> entries;
    Status status = Propfind(key, 1, false, &entries);
    if (!status.ok()) return status;
    records->clear();
    states->clear();
    for (const DavEntry& entry : entries) {
        std::string name;
        if (!IsChildName(key, entry, &name) || states->count(name) != 0) continue;
        _FS_FILE_V2 record;
        ToRecord(JoinKey(key, name), entry, &record);
        records->push_back(std::move(record));
        (*states)[name] = DavStateOf(entry);
    }
    return Status::Ok();
}

AERROR WebdavProtocol::ListFolder(const char* key, IFileList* sink, void** cookie) {
    if (key == nullptr || sink == nullptr) {
        return ReportStatus(MissingArgument("key or sink"), cookie);
    }
    const uint64_t generation = watch_.Generation(key);
    std::vector<_FS_FILE_V2> records;
    FolderWatch::Entries states;
    const Status status = ReadFolder(key, &records, &states);
    if (!status.ok()) return ReportStatus(status, cookie);
    watch_.Store(key, generation, std::move(states));
    for (_FS_FILE_V2& record : records) {
        const AERROR code = sink->AddFile(&record);
        if (code != SUCCESS) {
            return ReportStatus(
                Status::Error(code, std::string(key) + ": the listing was not taken"), cookie);
        }
    }
    return SUCCESS;
}

AERROR WebdavProtocol::GetChanges(IFileChanges* sink, void** cookie) {
    if (sink == nullptr) return ReportStatus(MissingArgument("sink"), cookie);
    for (const std::string& key : watch_.Folders())
        PollFolder(key, sink);
    return SUCCESS;
}

void WebdavProtocol::PollFolder(const std::string& key, IFileChanges* sink) {
    const uint64_t generation = watch_.Generation(key);
    std::vector<_FS_FILE_V2> records;
    FolderWatch::Entries states;
    const Status status = ReadFolder(key, &records, &states);
    if (status.code() == FILE_NOT_FOUND) {
        // Gone: the poll of its parent reports that.
        watch_.Forget(key);
        return;
    }
    if (!status.ok()) return;
    for (const DavChange& change : watch_.Compare(key, generation, std::move(states))) {
        if (change.kind == DavChange::Kind::kRemoved) {
            sink->Removed(key.c_str(), change.name.c_str());
            continue;
        }
        for (_FS_FILE_V2& record : records) {
            if (record.name != change.name) continue;
            if (change.kind == DavChange::Kind::kAdded) {
                sink->Added(key.c_str(), &record);
            } else {
                sink->Changed(record.key.c_str(), &record);
            }
            break;
        }
    }
}

Status WebdavProtocol::Simple(const std::string& method, const std::string& path,
                              std::vector<std::string> headers) {
    HttpRequest request;
    request.method = method;
    request.path = path;
    request.headers = std::move(headers);
    request.idempotent = method != "MKCOL";
    HttpResponse response;
    return http_.Send(request, &response);
}

Status WebdavProtocol::Move(const std::string& key, const std::string& newKey, bool folder,
                            bool overwrite, _FS_FILE_V2* record) {
    const std::string parent = ParentKey(key);
    const std::string newParent = ParentKey(newKey);
    watch_.Erase(parent, NameOfKey(key));
    watch_.Touch(newParent);
    Status status;
    {
        const auto pass = ClearFolder("MOVE", key, folder);
        status = Simple("MOVE", http_.Address().PathOf(key, folder),
                        {"Destination: " + http_.Address().UrlOf(newKey, folder),
                         std::string("Overwrite: ") + (overwrite ? "T" : "F")});
    }
    if (!status.ok()) return status;
    if (folder) watch_.Forget(key);
    etags_.Moved(key, newKey);
    times_.Moved(key, newKey);
    DavEntry entry;
    status = Stat(newKey, &entry);
    if (!status.ok()) return status;
    ToRecord(newKey, entry, record);
    watch_.Put(newParent, NameOfKey(newKey), DavStateOf(entry));
    return Status::Ok();
}

AERROR WebdavProtocol::RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    if (key == nullptr || parentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    if (!IsAcceptableDavName(record->name)) {
        return ReportStatus(Status::Error(INVALID_NAME, "invalid name \"" + record->name + "\""),
                            cookie);
    }
    if (ParentKey(key) != parentKey || std::string(key) == kRootKey) {
        return ReportStatus(Status::Error(INVALID_PARAMETER,
                                          std::string(key) + " is not in the folder " + parentKey),
                            cookie);
    }
    const std::string newKey = JoinKey(parentKey, record->name);
    if (newKey == key) return ReportStatus(StatRecord(key, record), cookie);
    const bool folder = (record->attributes & FILE_ATTRIBUTE_FOLDER) != 0;
    return ReportStatus(Move(key, newKey, folder, false, record), cookie);
}

AERROR WebdavProtocol::MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                void** cookie) {
    if (key == nullptr || newParentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    return ReportStatus(DoMoveItem(key, newParentKey, record), cookie);
}

Status WebdavProtocol::DoMoveItem(const std::string& key, const std::string& newParentKey,
                                  _FS_FILE_V2* record) {
    DavEntry item;
    Status status = Stat(key, &item);
    if (!status.ok()) return status;
    if (item.folder) return Status::Error(INVALID_PARAMETER, key + " is a folder");
    const std::string newKey = JoinKey(newParentKey, NameOfKey(key));
    if (newKey == key) {
        ToRecord(key, item, record);
        return Status::Ok();
    }
    // Only a file may take the place of another file.
    DavEntry target;
    status = Stat(newKey, &target);
    if (status.ok() && target.folder) {
        return Status::Error(ALREADY_EXISTS, newKey + ": a folder has this name");
    }
    if (!status.ok() && status.code() != FILE_NOT_FOUND) return status;
    return Move(key, newKey, false, status.ok(), record);
}

AERROR WebdavProtocol::MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                  void** cookie) {
    if (key == nullptr || newParentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    if (std::string(key) == kRootKey || IsSameOrBelow(newParentKey, key)) {
        return ReportStatus(
            Status::Error(INVALID_PARAMETER, std::string(key) + " cannot move into itself"),
            cookie);
    }
    const std::string newKey = JoinKey(newParentKey, NameOfKey(key));
    if (newKey == key) return ReportStatus(StatRecord(key, record), cookie);
    return ReportStatus(Move(key, newKey, true, false, record), cookie);
}

AERROR WebdavProtocol::CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) {
    if (parentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("folder key or record"), cookie);
    }
    return ReportStatus(DoCreateFolder(parentKey, record), cookie);
}

Status WebdavProtocol::DoCreateFolder(const std::string& parentKey, _FS_FILE_V2* record) {
    if (!IsAcceptableDavName(record->name)) {
        return Status::Error(INVALID_NAME, "invalid name \"" + record->name + "\"");
    }
    const std::string key = JoinKey(parentKey, record->name);
    watch_.Touch(parentKey);
    Status status = Simple("MKCOL", http_.Address().PathOf(key, true), {});
    if (!status.ok()) return status;
    DavEntry entry;
    status = Stat(key, &entry);
    if (!status.ok()) return status;
    ToRecord(key, entry, record);
    watch_.Put(parentKey, record->name, DavStateOf(entry));
    return Status::Ok();
}

AERROR WebdavProtocol::DeleteItem(const _FS_FILE_V2* record, void** cookie) {
    if (record == nullptr) return ReportStatus(MissingArgument("record"), cookie);
    return ReportStatus(DoDelete(record->key, false), cookie);
}

AERROR WebdavProtocol::DeleteFolder(const _FS_FILE_V2* record, void** cookie) {
    if (record == nullptr) return ReportStatus(MissingArgument("record"), cookie);
    return ReportStatus(DoDelete(record->key, true), cookie);
}

std::optional<TransferGate::Pass> WebdavProtocol::ClearFolder(const char* method,
                                                              const std::string& key, bool folder) {
    if (!folder) return std::nullopt;
    TransferGate::Pass pass = gate_.Folder(key);
    if (pass.WaitedOut() && log_ != nullptr) {
        log_->Log(LL_WARNING, "webdav: %s of %s goes on while an upload below it still runs",
                  method, key.c_str());
    }
    return pass;
}

Status WebdavProtocol::DoDelete(const std::string& key, bool folder) {
    if (key.empty() || key == kRootKey) {
        return Status::Error(INVALID_PARAMETER, "the share itself cannot be deleted");
    }
    watch_.Erase(ParentKey(key), NameOfKey(key));
    Status status;
    {
        const auto pass = ClearFolder("DELETE", key, folder);
        status = Simple("DELETE", http_.Address().PathOf(key, folder), {});
    }
    watch_.Erase(ParentKey(key), NameOfKey(key));
    if (folder) watch_.Forget(key);
    etags_.Removed(key);
    times_.Removed(key);
    return status;
}
