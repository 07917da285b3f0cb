#include "tree/find_files.h"

#include <chrono>
#include <thread>

#include "data/upload_place.h"
#include "foundation/transient_errors.h"
#include "services/log.h"
#include "tree/file.h"

FindFiles::FindFiles(std::shared_ptr<File> folder) : folder_(std::move(folder)) {
    unseen_.max_load_factor(1.0);
    added_.max_load_factor(1.0);
}

AERROR FindFiles::AddFile(const _FS_FILE_V2* record) {
    if (record == nullptr || !AcceptRecord(*record)) return SUCCESS;
    const std::string folded = FoldName(record->name);
    auto known = unseen_.find(folded);
    if (known != unseen_.end()) {
        known->second.node->Update(record, false, false);
        unseen_.erase(known);
        return SUCCESS;
    }
    if (added_.count(folded) != 0) return SUCCESS;
    // An upload that follows its file to a new name stores it at the old
    // place first, or under a transit name: what the listing sees there is
    // on its way elsewhere, and the file already has its node.
    UploadPlace place{folder_->GetProtocol().get(), folder_->Key(), record->name};
    if (IsTransitName(record->name) || IsUploadPlaceHeld(place)) return SUCCESS;
    auto node = folder_->NewChild(record);
    added_.emplace(folded, node);
    // Folders are indexed so that reports on their entries find them, and
    // files too, so that a report of a changed file reaches its node.
    if (reportsChanges_ && !record->key.empty()) {
        folder_->GetRootFile()->AddHash(record->key, node);
    }
    return SUCCESS;
}

void FindFiles::Process(void*) {
    // The folder holds this job only while it runs: keep it alive to the end.
    auto keep = shared_from_this();
    auto protocol = folder_->GetProtocol();
    if (!protocol) {
        result_ = FAILED;
        folder_->ListingDone(this);
        return;
    }
    reportsChanges_ = (protocol->GetCapabilities() & PROTOCOL_CAP_REPORTS_CHANGES) != 0;

    // A listing changes nothing, so a broken connection is simply tried
    // again, after 50, 100, 200 and 400 ms.
    void* cookie = nullptr;
    for (int attempt = 0;; ++attempt) {
        folder_->CopyChildren(unseen_);
        added_.clear();
        result_ = ListOnce(protocol.get(), &cookie);
        if (result_ == SUCCESS || !IsTransientError(result_) || attempt >= kListRetries) break;
        if (cookie != nullptr) protocol->ReleaseCookie(cookie);
        cookie = nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(50 << attempt));
    }
    if (result_ == SUCCESS) {
        folder_->MergeListing(added_, unseen_);
    } else if (auto sink = folder_->GetFSEvent()) {
        sink->Error(FSEVENT_LIST_FAILED, result_, folder_->BuildLocalPathA('/').c_str(),
                    folder_->BuildOriginPathA().c_str(), cookie);
    }
    if (cookie != nullptr) protocol->ReleaseCookie(cookie);
    unseen_.clear();
    added_.clear();
    folder_->ListingDone(this);
}

AERROR FindFiles::ListOnce(IProtocol_V2* protocol, void** cookie) {
    try {
        return protocol->ListFolder(folder_->Key().c_str(), this, cookie);
    } catch (...) {
        LogCaughtException("ListFolder");
    }
    return FAILED;
}

void FindFiles::Canceled(void*) {
    auto keep = shared_from_this();
    folder_->ListingDone(this);
}
