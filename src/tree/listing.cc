// Looking names up in a folder, and keeping its listing fresh.
#include <vector>

#include "services/async_queue.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"
#include "tree/find_files.h"

std::shared_ptr<File> File::NewChild(const _FS_FILE_V2* record) {
    auto child = std::make_shared<File>(protocol_, fileSystem_, config_, record, this, notifier_);
    child->SetParent(this);
    return child;
}

std::shared_ptr<File> File::GetFile(const char* name, std::shared_ptr<File> self) {
    if (name == nullptr) return nullptr;
    // Lookups of these names, made by desktop tools in every folder, are
    // never a reason to list one. Path lookups arrive case-folded.
    const std::string wanted = FoldName(name);
    if (IsFolder() && wanted != ".localized" && wanted != ".trashes") {
        const bool reportsChanges =
            protocol_ && (protocol_->GetCapabilities() & PROTOCOL_CAP_REPORTS_CHANGES) != 0;
        if (reportsChanges && listing_.Requested()) return GetFileWithNoFetch(name);
        FetchList(self);
    }
    return GetFileWithNoFetch(name);
}

AERROR File::FetchList(std::shared_ptr<File> self) {
    if (listing_.Pending()) return SUCCESS;
    listing_.SetRequested(true);
    const bool backgroundRefresh = !HasFeature(FEATURE_NO_BACKGROUND_REFRESH);
    if (backgroundRefresh && fileState_.load() == FILE_STATE_LISTED) {
        // The refresh interval is the "fetchasync" setting, in milliseconds.
        const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                                               listing_.ListedAt());
        if (age.count() < GetConfig().fetchasync) return SUCCESS;
        return RunListing(std::move(self), true);
    }
    return RunListing(std::move(self), false);
}

AERROR File::FetchListWithNoDetectChanges(std::shared_ptr<File> self) {
    if (listing_.Pending()) return SUCCESS;
    listing_.SetRequested(true);
    return RunListing(std::move(self), false);
}

AERROR File::RunListing(std::shared_ptr<File> self, bool background) {
    auto job = std::make_shared<FindFiles>(std::move(self));
    if (!listing_.Begin(job)) return SUCCESS;
    if (background) {
        // The old children answer while the refresh runs on the queue.
        if (fileSystem_ != nullptr) fileSystem_->JobStarted();
        job->SetBackground();
        QueueAsync(job.get(), nullptr);
        return SUCCESS;
    }
    job->Process(kInlineContext);
    return job->Result();
}

void File::ListingDone(FindFiles* job) {
    listing_.End(job);
    if (job->IsBackground() && fileSystem_ != nullptr) fileSystem_->JobFinished();
}

void File::MarkListed() {
    std::lock_guard<std::recursive_mutex> lock(children_.lock);
    listing_.SetRequested(true);
    fileState_ = FILE_STATE_LISTED;
    listing_.Stamp();
}

void File::CopyChildren(ListedChildren& out) {
    std::lock_guard<std::recursive_mutex> lock(children_.lock);
    out.clear();
    out.reserve(children_.map.size());
    for (const auto& [folded, node] : children_.map)
        out.emplace(folded, ListedChild{node, node->Key()});
}

void File::MergeListing(const Children& added, const ListedChildren& unseen) {
    std::vector<std::shared_ptr<File>> inserted;
    {
        std::lock_guard<std::recursive_mutex> lock(children_.lock);
        for (const auto& [folded, node] : added) {
            if (children_.map.emplace(folded, node).second) inserted.push_back(node);
        }
        children_.count = children_.map.size();
        // A listing vouches only for items that were stored remotely before it
        // began and still are the same items. Nodes without a key are local
        // only, like the marker files; one whose upload landed, or that was
        // renamed or moved, while the listing ran may be missing from it
        // though the remote has it.
        for (const auto& [folded, child] : unseen) {
            const std::shared_ptr<File>& node = child.node;
            if (child.key.empty() || node->Key() != child.key) continue;
            const auto current = children_.map.find(folded);
            if (current == children_.map.end() || current->second != node) continue;
            if (auto removed = RemoveChild(node->Name().c_str(), false)) removed->Detach();
        }
        if (fileState_.load() == FILE_STATE_LISTED) {
            for (const auto& node : inserted) {
                Notify(node->IsFolder() ? NE_MKDIR : NE_CREATE, node->BuildPath('\\'));
            }
        }
        fileState_ = FILE_STATE_LISTED;
        listing_.Stamp();
    }
}

bool File::HasEntries() {
    std::lock_guard<std::recursive_mutex> lock(children_.lock);
    for (const auto& [folded, child] : children_.map) {
        // A file unlinked while open is gone already.
        if (child->IsRemoved()) continue;
        if (folded != ".ql_disablethumbnails" && folded != ".ql_disablecache") return true;
        if (!child->Key().empty() || child->Info()->size != 0) return true;
    }
    return false;
}

bool File::HasAnyOpenedChildHandle() {
    std::vector<std::shared_ptr<File>> children;
    {
        std::lock_guard<std::recursive_mutex> lock(children_.lock);
        for (const auto& entry : children_.map)
            children.push_back(entry.second);
    }
    for (const auto& child : children) {
        if (child->IsRemoved()) continue;
        if (child->handles_.HasAnyOpened() || child->HasAnyOpenedChildHandle()) return true;
    }
    return false;
}

AERROR File::readdir(std::shared_ptr<File> self, std::list<FS_DIR_ENTRY>& out) {
    try {
        std::lock_guard<std::recursive_mutex> lock(children_.lock);
        const bool reportsChanges =
            protocol_ && (protocol_->GetCapabilities() & PROTOCOL_CAP_REPORTS_CHANGES) != 0;
        if (!(reportsChanges && listing_.Requested())) FetchList(self);

        FS_DIR_ENTRY entry;
        entry.name = ".";
        getattr(&entry.st);
        out.push_back(entry);
        entry.name = "..";
        if (Parent() != nullptr) {
            Parent()->getattr(&entry.st);
        } else {
            getattr(&entry.st);
        }
        out.push_back(entry);
        for (const auto& [folded, child] : children_.map) {
            entry.name = child->Name();
            if (entry.name == "." || entry.name == ".." || IsHiddenByFuse(entry.name)) continue;
            child->getattr(&entry.st);
            out.push_back(entry);
        }
    } catch (...) {
        LogCaughtException("readdir");
    }
    return SUCCESS;
}

bool File::IsUtf8(const char* text) {
    if (text == nullptr) return false;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    while (*bytes != 0) {
        int length;
        uint32_t point;
        if (bytes[0] < 0x80) {
            ++bytes;
            continue;
        } else if ((bytes[0] & 0xE0) == 0xC0) {
            length = 2;
            point = bytes[0] & 0x1F;
        } else if ((bytes[0] & 0xF0) == 0xE0) {
            length = 3;
            point = bytes[0] & 0x0F;
        } else if ((bytes[0] & 0xF8) == 0xF0) {
            length = 4;
            point = bytes[0] & 0x07;
        } else {
            return false;
        }
        for (int i = 1; i < length; ++i) {
            if ((bytes[i] & 0xC0) != 0x80) return false;
            point = (point << 6) | (bytes[i] & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        static const uint32_t kSmallest[5] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < kSmallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return false;
        }
        bytes += length;
    }
    return true;
}
