// Remote changes that a protocol reports to the root of its tree, and the
// node's remote creation.
#include "data/cache_io.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

// Each report finds the node its key names in the root's index; reports on
// items the tree never listed are dropped, since nothing of them is in
// memory. The index lock is released before the node is changed, so a report
// never holds one node's lock while taking another's.
AERROR File::Added(const char* key, _FS_FILE_V2* record) {
    if (key == nullptr || record == nullptr) return SUCCESS;
    auto folder = FindHash(key);
    if (!folder || !folder->IsFolder()) return SUCCESS;
    // An item put in place of one the tree knows (a program that saves by
    // renaming a new copy over the old) is news like any change.
    auto known = folder->GetFileWithNoFetch(record->name.c_str());
    if (known && !known->Key().empty() && known->Key() == record->key) {
        known->Update(record, false, false);
        return SUCCESS;
    }
    auto node = folder->AddChild(record, true);
    folder->IndexForChanges(node);
    return SUCCESS;
}

AERROR File::Removed(const char* key, const char* name) {
    if (key == nullptr || name == nullptr) return SUCCESS;
    auto folder = FindHash(key);
    if (!folder || !folder->IsFolder()) return SUCCESS;
    if (auto removed = folder->RemoveChild(name, true)) {
        const std::string removedKey = removed->Key();
        if (!removedKey.empty()) RemoveHash(removedKey);
        removed->Detach();
    }
    return SUCCESS;
}

AERROR File::Changed(const char* key, _FS_FILE_V2* record) {
    if (key == nullptr || record == nullptr) return SUCCESS;
    if (auto node = FindHash(key)) node->Update(record, false, false);
    return SUCCESS;
}

AERROR File::Refresh(const char* key) {
    if (key == nullptr) return SUCCESS;
    auto folder = FindHash(key);
    if (folder && folder->IsFolder()) folder->FetchListWithNoDetectChanges(folder);
    return SUCCESS;
}

void File::UpdateFreeSpace() {
    if (notifier_ != nullptr) notifier_->ChangeNotify(NE_FREESPACE, 5, nullptr, nullptr);
}

AERROR File::Touch(IExportService* service) {
    if (!protocol_ || Parent() == nullptr) return FAILED;
    auto handle = std::shared_ptr<_FS_HANDLE_EXT>(FileHandles::NewHandle());
    handle->mode = HANDLE_MODE_WRITE;
    handle->context = GetContext();
    PreventTimeoutCacheIO source(CacheObject(), service, config_);
    _FS_FILE_V2 record(Info()->Record());
    void* cookie = nullptr;
    const AERROR result =
        protocol_->UploadItem(Parent()->Key().c_str(), handle, &source, &record, nullptr, &cookie);
    handle->state = HANDLE_STATE_CLOSED;
    if (result == SUCCESS) {
        std::lock_guard<std::mutex> lock(dataMutex_);
        remoteKey_ = record.key;
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->key = record.key;
        next->knownSize = record.size;
        PublishInfo(next);
    } else {
        ReportError(FSEVENT_STORE_FAILED, result, cookie);
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    content_.ClearModified();
    IndexForChanges(shared_from_this());
    return result;
}
