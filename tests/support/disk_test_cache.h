// The host's disk cache on a temporary folder, as the library's tests bind it:
// the volume runs over the cache a real host gives it. Open can be made to
// fail, for the paths the library takes without a cache object.
#ifndef LIBFS_TESTS_SUPPORT_DISK_TEST_CACHE_H_
#define LIBFS_TESTS_SUPPORT_DISK_TEST_CACHE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "libfilesystem/cache.h"
#include "support/test_env.h"

class DiskCache;

class DiskTestCache : public ICacheService {
  public:
    explicit DiskTestCache(uint32_t blockSize = 4096);
    ~DiskTestCache() override;

    AERROR GetUsage(unsigned long long* used, unsigned long long* unsent) override;
    AERROR Flush() override;
    AERROR Remove(const char* key) override;
    std::shared_ptr<ICacheObj> Open(const char* key, char mode, long long size,
                                    IFetch* fetcher) override;
    void Close(const char* key) override;
    AERROR Rekey(const char* oldKey, const char* newKey, const char* extra) override;
    void NoteOrigin(const char* key, const _CACHE_ORIGIN* origin) override;

    void SetOpenFails(bool fail) { openFails_ = fail; }  // Open answers an empty pointer

  private:
    TempDir dir_;
    std::shared_ptr<DiskCache> disk_;
    std::atomic<bool> openFails_{false};
};

#endif  // LIBFS_TESTS_SUPPORT_DISK_TEST_CACHE_H_
