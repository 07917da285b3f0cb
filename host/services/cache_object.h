// The ICacheObj that the disk cache hands to the library: a thin handle on
// one cache entry.
#ifndef SKARVO_SERVICES_CACHE_OBJECT_H_
#define SKARVO_SERVICES_CACHE_OBJECT_H_

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

    CacheObject(std::shared_ptr<CacheEntry> entry, std::shared_ptr<CacheContext> context,
                GrownFn grown);

    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;
    AERROR Reopen(char mode, long long size, IFetch* fetcher) override;
    AERROR SetSize(long long size) override;
    AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) override;
    AERROR DropClean() override;
    AERROR Commit() override;
    AERROR Discard() override;

  private:
    const std::shared_ptr<CacheEntry> entry_;
    const std::shared_ptr<CacheContext> context_;
    const GrownFn grown_;
};

#endif  // SKARVO_SERVICES_CACHE_OBJECT_H_
