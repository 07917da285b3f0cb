// An in-memory cache service for tests that keeps file data in blocks the way
// a disk cache does, so that the library's reads, writes, fetches and uploads
// run against the same rules as with a real host.
//
// Each key has one object, the same for as long as the entry exists; Close
// leaves it and its data in place. Every block is absent, fetched or written.
// Reads fill absent blocks through request->fetch, one IFetch::Fetch call per
// run of contiguous absent blocks (cut to the object's size); without a
// fetcher they read as zeros. A write that covers only part of an absent
// block holding data below the size first fetches that block. Fetched data
// never replaces a block written while the fetch ran. No lock is held while
// IFetch::Fetch runs.
#ifndef LIBFS_TESTS_SUPPORT_MEMORY_CACHE_H_
#define LIBFS_TESTS_SUPPORT_MEMORY_CACHE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "libfilesystem/cache.h"

// The fetches of a service's objects, which may outlive the service.
struct MemoryCacheFetches {
    std::mutex mu;
    std::vector<std::pair<long long, long long>> ranges;  // (offset, size) asked
};

class MemoryCacheObject : public ICacheObj {
  public:
    MemoryCacheObject(std::shared_ptr<MemoryCacheFetches> fetches, long long blockSize)
        : fetches_(std::move(fetches)), blockSize_(blockSize) {}

    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;
    AERROR Reopen(char mode, long long size, IFetch* fetcher) override;
    AERROR SetSize(long long size) override;
    AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) override;
    AERROR DropClean() override;
    AERROR Commit() override;
    AERROR Discard() override;

    std::string Contents() const;  // bytes up to the size

  private:
    enum State : uint8_t { kAbsent, kFetched, kWritten };

    // Caller holds mu_. Bytes added read as zeros; their blocks are written
    // when `addedIsWritten`, absent otherwise.
    void ResizeLocked(long long size, bool addedIsWritten);
    void ForgetLocked(std::size_t block);  // marks absent and zeroes its bytes
    // Fetches every run of absent blocks in [first, last), without holding
    // mu_ while the fetch runs.
    AERROR FetchMissing(long long first, long long last, IFetch* fetch,
                        const std::shared_ptr<_FS_HANDLE>& handle);

    const std::shared_ptr<MemoryCacheFetches> fetches_;
    const long long blockSize_;
    mutable std::mutex mu_;
    std::string data_;           // the size rounded up to whole blocks
    std::vector<State> blocks_;  // one per block
    long long size_ = 0;
    IFetch* fetcher_ = nullptr;
};

class MemoryCacheService : public ICacheService {
  public:
    explicit MemoryCacheService(long long blockSize = 4096) : blockSize_(blockSize) {}

    // The library never calls these three (they are the host's).
    AERROR GetUsage(unsigned long long*, unsigned long long*) override { return NOT_SUPPORTED; }
    AERROR Flush() override { return NOT_SUPPORTED; }
    AERROR Remove(const char*) override { return NOT_SUPPORTED; }
    std::shared_ptr<ICacheObj> Open(const char* key, char mode, long long size,
                                    IFetch* fetcher) override;
    void Close(const char*) override {}
    AERROR Rekey(const char* oldKey, const char* newKey, const char* extra) override;

    void SetOpenFails(bool fail);                        // Open answers an empty pointer
    std::string Contents(const std::string& key) const;  // "" without an entry
    int FetchCalls() const;
    std::vector<std::pair<long long, long long>> FetchedRanges() const;

  private:
    const long long blockSize_;
    const std::shared_ptr<MemoryCacheFetches> fetches_ = std::make_shared<MemoryCacheFetches>();
    mutable std::mutex mu_;
    std::map<std::string, std::shared_ptr<MemoryCacheObject>> entries_;
    bool openFails_ = false;
};

#endif  // LIBFS_TESTS_SUPPORT_MEMORY_CACHE_H_
