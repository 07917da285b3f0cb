// The ICacheObj that the disk cache hands to the library: a thin handle on
// one cache entry.
#ifndef SKARVO_SERVICES_CACHE_OBJECT_H_
#define SKARVO_SERVICES_CACHE_OBJECT_H_

#include <cstdint>
#include <functional>
#include <memory>

#include "libfilesystem/cache.h"
#include "services/cache_entry.h"

class CacheObject : public ICacheObj {
  public:
    // Tells the cache that it may hold more data now, so that it can evict;
    // `released` when the entry may have become evictable itself. It must stay
    // callable for as long as the object lives.
    using GrownFn = std::function<void(bool released)>;
    // Asks the cache to free about `bytes` on its disk by evicting clean,
    // closed entries; true when it freed anything. The same lifetime as GrownFn.
    using RoomFn = std::function<bool(uint64_t bytes)>;

    CacheObject(std::shared_ptr<CacheEntry> entry, std::shared_ptr<CacheContext> context,
                GrownFn grown, RoomFn room);

    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;
    AERROR Reopen(char mode, long long size, IFetch* fetcher) override;
    AERROR SetSize(long long size) override;
    AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) override;
    AERROR DropClean() override;
    AERROR Commit() override;
    AERROR Discard() override;
    AERROR Sync() override;
    AERROR SaveWritten() override;
    AERROR CheckVersion(const char* version) override;
    AERROR SetVersion(const char* version) override;

  private:
    // Runs `operation`; when the disk is full, makes room for `bytes` and
    // runs it once more. Says so once when it still does not fit.
    template <typename Operation>
    AERROR WithRoom(uint64_t bytes, Operation&& operation);

    const std::shared_ptr<CacheEntry> entry_;
    const std::shared_ptr<CacheContext> context_;
    const GrownFn grown_;
    const RoomFn room_;
};

#endif  // SKARVO_SERVICES_CACHE_OBJECT_H_
