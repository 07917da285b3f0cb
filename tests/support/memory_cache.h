// An in-memory cache service for tests that keeps file data in blocks the way
// a disk cache does, so that the library's reads, writes, fetches and uploads
// run against the same rules as with a real host.
//
// Each key has one entry: a byte buffer, a size and one state per block
// (absent, fetched, written). Open returns the entry's object, the same one
// for a key for as long as the entry exists; Close leaves the entry and its
// data in place.
//
// Reads fill absent blocks through request->fetch, one IFetch::Fetch call per
// run of contiguous absent blocks (cut to the object's size). A failed fetch
// fails the read with the fetch's own code. Without a fetcher absent blocks
// read as zeros. Fetched data never replaces a block that was written while
// the fetch ran.
//
// Writes mark their blocks written. A write that covers only part of a block
// that is absent and holds data below the current size first fetches that
// block through request->fetch, so that the rest of the block is the remote
// data rather than zeros; without a fetcher the rest stays zeros and the block
// counts as written all the same. A failed edge fetch fails the write with the
// fetch's code.
//
// Sizes. Open and Reopen set the size: bytes they add are absent (the remote
// file may hold them). SetSize and writes past the end add bytes that read as
// zeros and count as written. Shrinking forgets the bytes beyond the new size.
//
// Locks. The service map has one mutex and every entry its own; neither is
// held while IFetch::Fetch runs (fetched data is collected in a buffer and
// stored afterwards), so a fetch may call back into the cache freely.
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

class MemoryCacheService;

// The counters that a service and its objects share. Objects may outlive the
// service, so they hold these by shared pointer.
struct MemoryCacheStats {
    std::mutex mu;
    int fetchCalls = 0;
    int fetchesWithoutHandle = 0;
    long long fetchedBytes = 0;  // bytes received through fetch callbacks
    std::vector<std::pair<long long, long long>> fetchedRanges;  // (offset, size) asked
    int reads = 0;
    int writes = 0;
    int writesInReadMode = 0;  // writes to an object last opened for 'r'
    int reopens = 0;
    int setSizes = 0;
    int fills = 0;
    int drops = 0;
    int commits = 0;
    int discards = 0;
};

class MemoryCacheObject : public ICacheObj {
  public:
    enum BlockState : uint8_t { kAbsent = 0, kFetched = 1, kWritten = 2 };

    MemoryCacheObject(std::shared_ptr<MemoryCacheStats> stats, long long blockSize);

    // ICacheIO / ICacheObj
    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;
    AERROR Reopen(char mode, long long size, IFetch* fetcher) override;
    AERROR SetSize(long long size) override;
    AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) override;
    AERROR DropClean() override;
    AERROR Commit() override;
    AERROR Discard() override;

    // Inspection.
    long long Size() const;
    char Mode() const;
    IFetch* Fetcher() const;
    std::string Contents() const;    // bytes up to the size
    long long WrittenBytes() const;  // bytes below the size in written blocks
    long long HeldBytes() const;     // bytes below the size in fetched or written blocks
    BlockState StateOf(long long block) const;
    std::vector<BlockState> States() const;

  private:
    friend class MemoryCacheService;

    // Caller holds mu_.
    void ResizeLocked(long long size, bool addedIsWritten);
    void ForgetLocked(long long block);  // marks absent and zeroes its bytes
    long long BlockCount(long long size) const { return (size + blockSize_ - 1) / blockSize_; }
    long long HeldLocked(uint8_t mask) const;

    // Fetches blocks [first, last) through `fetch` without holding mu_, then
    // stores the data into those of them that are still absent.
    AERROR FetchBlocks(long long first, long long last, IFetch* fetch,
                       const std::shared_ptr<_FS_HANDLE>& handle);
    // Fetches every run of absent blocks in [first, last).
    AERROR FetchMissing(long long first, long long last, IFetch* fetch,
                        const std::shared_ptr<_FS_HANDLE>& handle);

    const std::shared_ptr<MemoryCacheStats> stats_;
    const long long blockSize_;
    mutable std::mutex mu_;
    std::vector<char> data_;       // always BlockCount(size_) * blockSize_ bytes
    std::vector<uint8_t> blocks_;  // one BlockState per block
    long long size_ = 0;
    char mode_ = 'r';
    IFetch* fetcher_ = nullptr;
};

class MemoryCacheService : public ICacheService {
  public:
    explicit MemoryCacheService(long long blockSize = 4096);

    // ICacheService
    AERROR GetUsage(unsigned long long* used, unsigned long long* unsent) override;
    AERROR Flush() override;
    AERROR Remove(const char* key) override;  // SHARING_VIOLATION while open
    std::shared_ptr<ICacheObj> Open(const char* key, char mode, long long size,
                                    IFetch* fetcher) override;
    void Close(const char* key) override;
    // FILE_NOT_FOUND when there is no entry for `oldKey`.
    AERROR Rekey(const char* oldKey, const char* newKey, const char* extra) override;

    // Switches.
    void SetOpenFails(bool fail);  // Open answers an empty pointer while set

    // Counters.
    int Opens() const;      // successful Opens
    int Closes() const;     // Close calls for a key with an entry
    int BadCloses() const;  // Close calls for a key without one, or not open
    int Rekeys() const;     // successful Rekeys
    int Flushes() const;
    int Removes() const;
    std::string LastRekeyExtra() const;
    int FetchCalls() const;
    int FetchesWithoutHandle() const;
    long long FetchedBytes() const;
    std::vector<std::pair<long long, long long>> FetchedRanges() const;
    int Reads() const;
    int Writes() const;
    // Writes into an object whose last Open/Reopen was for reading; they are
    // accepted, but the library is expected to reopen for 'w' first.
    int WritesInReadMode() const;
    int Reopens() const;  // ICacheObj::Reopen calls (Open is counted apart)
    int SetSizes() const;
    int Fills() const;
    int Drops() const;
    int Commits() const;
    int Discards() const;
    void ResetCounters();  // every counter above, for the service and its objects

    // Entries.
    bool HasEntry(const std::string& key) const;
    int OpenCount(const std::string& key) const;         // Opens minus Closes
    std::string Contents(const std::string& key) const;  // "" without an entry
    long long Size(const std::string& key) const;        // -1 without an entry
    long long WrittenBytes(const std::string& key) const;
    std::vector<std::string> Keys() const;  // sorted
    std::shared_ptr<MemoryCacheObject> Object(const std::string& key) const;
    long long BlockSize() const { return blockSize_; }

  private:
    struct Entry {
        std::shared_ptr<MemoryCacheObject> object;
        int openCount = 0;
    };

    const long long blockSize_;
    const std::shared_ptr<MemoryCacheStats> stats_;
    mutable std::mutex mu_;
    std::map<std::string, Entry> entries_;
    bool openFails_ = false;
    int opens_ = 0;
    int closes_ = 0;
    int badCloses_ = 0;
    int rekeys_ = 0;
    int flushes_ = 0;
    int removes_ = 0;
    std::string lastRekeyExtra_;
};

#endif  // LIBFS_TESTS_SUPPORT_MEMORY_CACHE_H_
