// Applying a fresh remote record to an existing node.
#include "data/cache_service.h"
#include "tree/file.h"

// The remote content changed when the incoming record's size differs from
// the size the node last took from the remote (knownSize), or its
// modification time differs from the node's. Then the node's cached clean
// data is dropped, and its cache object reopened at the new size, so that the
// next read fetches the new content; data being
// written locally stays and is uploaded later: the local writer wins, and
// while it writes the node keeps showing its local size and time. When the
// node's path changed (a rename or move), its cache entry is re-keyed. A
// record that names the same content (`sameContent`: the node's own record
// after a rename or move) leaves the cached data alone.
void File::Update(const _FS_FILE_V2* record, bool sameContent, bool) {
    if (record == nullptr) return;
    bool contentChanged;
    bool rekeyed = false;
    std::shared_ptr<ICacheObj> cacheObject;
    std::string oldKey;
    std::string extra;
    std::string version;  // of the remote content, for a cache object; "": unknown
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        auto current = Info();
        _FS_FILE_V2 copy(*record);
        copy.createTime = serverTime_.fromServer(copy.createTime.c_str());
        copy.accessTime = serverTime_.fromServer(copy.accessTime.c_str());
        copy.modifyTime = serverTime_.fromServer(copy.modifyTime.c_str());
        if (!IsAcceptableName(copy.name)) copy.name = current->name;
        // The protocol's opaque text (a version tag, for example) changes
        // with the content too, even when size and time stay.
        contentChanged = !sameContent &&
                         (copy.size != current->knownSize ||
                          copy.modifyTime != current->modifyTime || copy.extra != current->extra);

        auto next = std::make_shared<_FS_FILE_EXT>();
        *next = copy;
        const bool localWriter = IsModified() || IsUploading() || handles_.ExistWriteHandle();
        if (localWriter) {
            // The local change stays based on the version it started from.
            next->size = current->size;
            next->modifyTime = current->modifyTime;
            next->extra = current->extra;
        } else {
            content_.SetFetchableSize(next->size);
        }
        if (!copy.key.empty()) {
            rekeyed = copy.key != remoteKey_;
            remoteKey_ = copy.key;
        }
        PublishInfo(next);
        cacheObject = content_.CacheObject();
        oldKey = content_.CacheKey();
        extra = next->extra;
        // A local writer keeps the node's record at the version it started
        // from, so the remote's new one is not named.
        if (contentChanged && cacheObject && !localWriter) version = next->ContentVersion();
    }
    // Change reports name the item by its new key from now on.
    if (rekeyed) IndexForChanges(shared_from_this());
    if (contentChanged) {
        if (cacheObject) {
            cacheObject->CheckVersion(version.c_str());
            cacheObject->Reopen('r', Info()->size, this);
        } else {
            content_.MarkStale();
        }
    }
    if (!oldKey.empty()) {
        const std::wstring newPath = BuildPathForCache('\\');
        if (CacheKey(newPath) != oldKey) {
            Rehash(oldKey, newPath, extra.c_str());
            content_.Rekey(CacheKey(newPath));
            NoteOrigin(nullptr);
        }
    }
}
