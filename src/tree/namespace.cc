// Creating folders, deleting, renaming and moving items, on the remote first
// and then in the tree.
#include <vector>

#include "data/cache_service.h"
#include "foundation/shared_hold.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

namespace {

void Release(IProtocol_V2* protocol, void* cookie) {
    if (protocol != nullptr && cookie != nullptr) protocol->ReleaseCookie(cookie);
}

}  // namespace

AERROR File::CreateDirectory(const char* name) {
    if (name == nullptr || !IsAcceptableName(name)) return INVALID_NAME;
    if (GetFileWithNoFetch(name)) return ALREADY_EXISTS;
    if (!protocol_) return FAILED;
    _FS_FILE_V2 record;
    record.name = name;
    record.attributes = FILE_ATTRIBUTE_FOLDER;
    void* cookie = nullptr;
    const AERROR result = protocol_->CreateFolder(Key().c_str(), &record, &cookie);
    if (result == SUCCESS) {
        if (!IsAcceptableName(record.name)) record.name = name;
        record.attributes |= FILE_ATTRIBUTE_FOLDER;
        if (auto node = AddChild(&record, true)) {
            // A folder just made is empty: there is nothing to list.
            node->MarkListed();
            IndexForChanges(node);
            Notify(NE_MKDIR, node->BuildPath('\\'));
        }
    } else {
        ReportError(FSEVENT_CREATE_FOLDER_FAILED, result, cookie);
    }
    Release(protocol_.get(), cookie);
    return result;
}

AERROR File::unlink(bool lock) {
    const bool open = !IsFolder() && handles_.HasAnyOpened();
    const std::string key = RemoteKey();
    const AERROR result = DeleteRemotely(open);
    if (result != SUCCESS) return result;
    // The item is gone: so is whatever the cache held of it, written data
    // that was never uploaded included; once its last handle closes, if it
    // is still open.
    if (!open && !IsFolder()) DropContent();
    if (Parent() != nullptr) Parent()->RemoveChild(Name().c_str(), lock);
    if (!key.empty()) GetRootFile()->RemoveHash(key);
    Detach();
    UpdateFreeSpace();
    return SUCCESS;
}

AERROR File::Hide(const std::string& hiddenName) {
    const std::string key = RemoteKey();
    const AERROR result = DeleteRemotely(true);
    if (result != SUCCESS) return result;
    if (!key.empty()) GetRootFile()->RemoveHash(key);
    // Only the tree knows the hidden name: the remote item is gone.
    void* cookie = nullptr;
    std::lock_guard<std::recursive_mutex> lock(*Parent()->GetChildLock());
    return RenameInPlace(hiddenName, true, &cookie);
}

AERROR File::DeleteRemotely(bool keepContent) {
    // An upload must not bring the item back once it is deleted: stop it,
    // and wait, so that an upload that ended in time is deleted too.
    CancelUploadings();
    WaitAsyncJobs();
    // A file still open keeps its content after the delete, as on a local
    // disk: what is only on the remote is brought into the cache first.
    if (keepContent) {
        const AERROR kept = KeepContentLocally();
        if (kept != SUCCESS) return kept;
    }
    _FS_FILE_V2 record(Info()->Record());
    record.key = RemoteKey();
    AERROR result = SUCCESS;
    void* cookie = nullptr;
    if (protocol_ && !record.key.empty()) {
        if (IsFolder()) {
            result = protocol_->DeleteFolder(&record, &cookie);
        } else if ((record.attributes & FILE_ATTRIBUTE_NO_DELETE) == 0) {
            result = protocol_->DeleteItem(&record, &cookie);
        }
    }
    if (result != SUCCESS) ReportError(FSEVENT_DELETE_FAILED, result, cookie);
    Release(protocol_.get(), cookie);
    if (result != SUCCESS) return result;
    // Still open, the file is written and closed as usual, but never
    // uploaded again: that would bring it back.
    removed_ = true;
    if (keepContent) SetAside();
    return SUCCESS;
}

AERROR File::KeepContentLocally() {
    if (Info()->key.empty()) return SUCCESS;
    auto cacheObject = OpenedCache();
    if (!cacheObject) return FILE_READ_FAILED;
    auto handle = JobHandle(nullptr);
    handle->context = GetContext();
    {
        std::unique_lock<std::shared_mutex> content(content_.Lock());
        cacheObject->Reopen('w', Info()->size, this);
    }
    return cacheObject->FillUnwritten(handle);
}

void File::SetAside() {
    std::string oldKey;
    const std::wstring aside = L"\\.skarvo-removed-" + std::to_wstring(serial_);
    const std::string asideKey = CacheKey(aside);
    // The content goes aside with the cache object open, so that the
    // object follows it.
    OpenCache('r');
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        // Nothing is fetched any more: the remote item is gone.
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->key.clear();
        remoteKey_.clear();
        content_.SetFetchableSize(0);
        PublishInfo(next);
        oldKey = content_.Rekey(asideKey);
    }
    // The name is free for a new file, whose cache entry must not be this one.
    if (!oldKey.empty()) {
        Rehash(oldKey, aside, "");
        // The content belongs nowhere now: it must never be uploaded again.
        NoteCacheOrigin(asideKey, "", nullptr, nullptr);
    }
}

void File::DropContent() {
    std::string key = content_.CacheKey();
    // A closed file's entry may still hold data whose upload failed.
    if (key.empty()) key = CacheKey(BuildPathForCache('\\'));
    if (auto cacheObject = CacheObject()) cacheObject->Discard();
    CloseCache();
    // What the cache still keeps of it belongs nowhere, and may go.
    NoteCacheOrigin(key, "", nullptr, nullptr);
}

AERROR File::Replace(const File& source, bool lock) {
    if (IsFolder() != source.IsFolder()) return ACCESS_DENIED;
    // Never delete what a folder holds: only an empty one is replaced.
    if (IsFolder() && HasEntries()) return DIR_NOT_EMPTY;
    return unlink(lock);
}

AERROR File::DeleteFile(_FS_HANDLE_EXT*, bool deleting) {
    fileState_ = deleting ? FILE_STATE_DELETING : FILE_STATE_LISTED;
    return SUCCESS;
}

void File::ForgetChildren() {
    std::vector<std::shared_ptr<File>> dropped;
    std::vector<std::shared_ptr<File>> keptFolders;
    bool keptStored = false;
    {
        std::lock_guard<std::recursive_mutex> lock(children_.lock);
        std::vector<std::shared_ptr<File>> kept;
        for (auto& [folded, child] : children_.map) {
            // Items never stored remotely (the marker files among them) are
            // not in the next listing, and items with changes not yet
            // uploaded must not be lost: they stay.
            const bool keep = child->Key().empty() || child->HoldsLocalChanges();
            (keep ? kept : dropped).push_back(child);
        }
        children_.map.clear();
        for (auto& child : kept) {
            children_.map[FoldName(child->Name())] = child;
            if (!child->Key().empty()) keptStored = true;
            if (child->IsFolder()) keptFolders.push_back(child);
        }
        children_.count = children_.map.size();
    }
    ForgetListing();
    for (auto& node : dropped)
        node->Detach();
    // Children kept for their changes still carry the keys of the old place:
    // the folder is listed now, so that they take their new keys before an
    // upload uses them, and so on below.
    if (!keptStored) return;
    FetchListWithNoDetectChanges(shared_from_this());
    for (auto& folder : keptFolders)
        folder->ForgetChildren();
}

void File::ForgetListing() {
    std::lock_guard<std::recursive_mutex> lock(children_.lock);
    uint32_t listed = FILE_STATE_LISTED;
    fileState_.compare_exchange_strong(listed, FILE_STATE_NEW);
    // The next lookup lists the folder again, synchronously, before it
    // answers, even when the protocol reports changes itself.
    listing_.SetRequested(false);
    for (auto& [folded, child] : children_.map) {
        if (child->IsFolder()) child->ForgetListing();
    }
}

bool File::HoldsLocalChanges() {
    if (IsModified() || handles_.HasAnyOpened()) return true;
    {
        if (content_.HasJobs()) return true;
    }
    if (!IsFolder()) return false;
    std::lock_guard<std::recursive_mutex> lock(children_.lock);
    for (auto& [folded, child] : children_.map) {
        if (child->HoldsLocalChanges()) return true;
    }
    return false;
}

void File::Detach() {
    // Children hold their parent, so a folder that left the tree for good
    // lets go of its children, or the two would keep each other alive.
    if (IsFolder()) ClearChildrens();
}

AERROR File::RenameInPlace(const std::string& newName, bool rekey, void** cookie) {
    const std::string key = RemoteKey();
    _FS_FILE_V2 record(Info()->Record());
    record.name = newName;
    if (protocol_ && !key.empty()) {
        record.key = key;
        const std::string parentKey = Parent() != nullptr ? Parent()->Key() : std::string();
        const AERROR result =
            protocol_->RenameItem(key.c_str(), parentKey.c_str(), &record, cookie);
        if (result != SUCCESS) {
            ReportError(FSEVENT_RENAME_FAILED, result, *cookie);
            return result;
        }
        if (!IsAcceptableName(record.name)) record.name = newName;
    }
    const std::string oldName = Name();
    if (rekey && Parent() != nullptr) {
        std::lock_guard<std::recursive_mutex> lock(*Parent()->GetChildLock());
        auto self = Parent()->children_.map.find(FoldName(oldName));
        if (self != Parent()->children_.map.end() && self->second.get() == this) {
            auto node = self->second;
            Parent()->children_.map.erase(self);
            Update(&record, true, false);
            Parent()->children_.map[FoldName(newName)] = node;
            Parent()->children_.count = Parent()->children_.map.size();
        } else {
            Update(&record, true, false);
        }
    } else {
        Update(&record, true, false);
    }
    if (IsFolder()) ForgetChildren();
    return SUCCESS;
}

AERROR File::RenameFile(std::shared_ptr<File>, const char* newName, bool notify) {
    if (newName == nullptr || !IsAcceptableName(newName)) return INVALID_NAME;
    const std::wstring oldPath = BuildPath('\\');
    void* cookie = nullptr;
    AERROR result;
    {
        // Uploads queued or running are kept and not waited for: they store
        // the data under the new name.
        std::lock_guard<std::mutex> place(placeLock_);
        // A folder's new key changes every key below it.
        std::unique_lock<std::shared_mutex> gate(PlaceGate(), std::defer_lock);
        if (IsFolder()) gate.lock();
        result = RenameInPlace(newName, true, &cookie);
    }
    if (result == SUCCESS && notify) {
        const std::wstring newPath = BuildPath('\\');
        Notify(IsFolder() ? NE_RENAMEFOLDER : NE_RENAMEITEM, oldPath, &newPath);
    }
    Release(protocol_.get(), cookie);
    return result;
}

AERROR File::RenameFile(std::shared_ptr<File> source, const std::string& newName,
                        const std::string& process) {
    if (!source) return FILE_NOT_FOUND;
    if (!IsAcceptableName(newName)) return INVALID_NAME;
    // An item already there under the new name is replaced, unless it is the
    // source itself (a rename that changes only the letter case).
    auto target = GetFileWithNoFetch(newName.c_str());
    if (target && target != source) {
        const AERROR removed = target->Replace(*source, true);
        if (removed != SUCCESS) return removed;
    }
    const AERROR result = source->RenameFile(source, newName.c_str(), true);
    if (result == SUCCESS && fileSystem_ != nullptr) {
        // A name the filter keeps local stays local from now on.
        auto filter = fileSystem_->GetFSFilter();
        if (filter && source->RemoteKey().empty() && !source->IsFolder() &&
            filter->IsOfflineOnly(process.c_str(), newName.c_str())) {
            std::lock_guard<std::mutex> lock(source->dataMutex_);
            auto next = std::make_shared<_FS_FILE_EXT>(*source->Info());
            next->attributes |= FILE_ATTRIBUTE_NO_DELETE;
            source->PublishInfo(next);
        }
        if (auto sink = GetFSEvent()) {
            sink->Notice(FSNOTICE_RENAMED, source->BuildLocalPathA('/').c_str(),
                         source->BuildOriginPathA().c_str(),
                         source->BuildPathForPrint('/', false).c_str());
        }
    }
    return result;
}

AERROR File::MoveFile(std::shared_ptr<File> self, std::shared_ptr<File> newParent,
                      std::string newName) {
    if (!newParent || Parent() == nullptr) return FAILED;
    const std::string finalName = newName.empty() ? Name() : newName;
    if (!IsAcceptableName(finalName)) return INVALID_NAME;
    // Like rename(2), a move replaces an item of the same name.
    auto target = newParent->GetFileWithNoFetch(finalName.c_str());
    if (target && target != self) {
        const AERROR removed = target->Replace(*this, false);
        if (removed != SUCCESS) return removed;
    }
    // Uploads queued or running are kept and not waited for: they store the
    // data in the new place.
    //
    // The locks go in the order a rename in place takes them: the node's
    // place, the volume's place gate, then folders. A move that held its
    // folders while it waited for the gate would deadlock with a folder
    // rename that holds the gate and waits for its parent or a folder below.
    std::lock_guard<std::mutex> place(placeLock_);
    // A file moves and renames in several calls, a folder changes the keys
    // below it: see PlaceGate.
    SharedHold gate(PlaceGate(), IsFolder());
    // Both folders' locks are taken together: in a fixed order, two
    // opposite moves between the same folders could deadlock.
    std::scoped_lock folders(*Parent()->GetChildLock(), *newParent->GetChildLock());
    const std::string oldName = Name();
    _FS_FILE_V2 record(Info()->Record());
    AERROR result = MoveRemote(newParent, finalName != oldName, record);
    if (result != SUCCESS) return result;
    Parent()->RemoveChild(oldName.c_str(), false);
    SetParent(newParent.get());
    const std::wstring oldPath = BuildPath('\\');
    // In the tree too the node goes through its transit name, so that its
    // cache entry is never re-keyed onto another file's of the old name.
    record.name = finalName != oldName ? TransitName() : oldName;
    Update(&record, true, false);
    // A rename below forgets the children once the final name is set.
    if (IsFolder() && finalName == oldName) ForgetChildren();
    if (finalName != oldName) {
        void* cookie = nullptr;
        result = RenameInPlace(finalName, false, &cookie);
        Release(protocol_.get(), cookie);
        if (result == SUCCESS) {
            const std::wstring newPath = BuildPath('\\');
            Notify(IsFolder() ? NE_RENAMEFOLDER : NE_RENAMEITEM, oldPath, &newPath);
        }
    }
    // The node now lives in its new folder: the remote move succeeded.
    newParent->AddChild(self, false);
    if (auto sink = GetFSEvent()) {
        sink->Notice(FSNOTICE_RENAMED, BuildLocalPathA('/').c_str(), BuildOriginPathA().c_str(),
                     BuildPathForPrint('/', false).c_str());
    }
    return result;
}

namespace {
const char kTransitPrefix[] = ".skarvo-move-";
}  // namespace

std::string File::TransitName() const {
    return kTransitPrefix + std::to_string(serial_);
}

bool IsTransitName(const std::string& name) {
    return name.compare(0, sizeof kTransitPrefix - 1, kTransitPrefix) == 0;
}

AERROR File::MoveRemote(const std::shared_ptr<File>& newParent, bool renaming,
                        _FS_FILE_V2& record) {
    const std::string key = RemoteKey();
    if (!protocol_ || key.empty()) return SUCCESS;
    record.key = key;
    const std::string parentKey = Parent()->Key();
    void* cookie = nullptr;
    AERROR result = SUCCESS;
    // A move that renames goes through a name no one uses, so that the move
    // never replaces an item that holds the old name in the new folder.
    if (renaming) {
        record.name = TransitName();
        result = protocol_->RenameItem(key.c_str(), parentKey.c_str(), &record, &cookie);
        if (result != SUCCESS) ReportError(FSEVENT_RENAME_FAILED, result, cookie);
    }
    if (result == SUCCESS) {
        const std::string from = record.key;
        const std::string newParentKey = newParent->Key();
        result = IsFolder()
                     ? protocol_->MoveFolder(from.c_str(), newParentKey.c_str(), &record, &cookie)
                     : protocol_->MoveItem(from.c_str(), newParentKey.c_str(), &record, &cookie);
        if (result != SUCCESS) ReportError(FSEVENT_MOVE_FAILED, result, cookie);
        if (result != SUCCESS && renaming) {
            _FS_FILE_V2 back(record);
            back.key = from;
            back.name = Name();
            void* backCookie = nullptr;
            protocol_->RenameItem(from.c_str(), parentKey.c_str(), &back, &backCookie);
            Release(protocol_.get(), backCookie);
        }
    }
    Release(protocol_.get(), cookie);
    return result;
}
