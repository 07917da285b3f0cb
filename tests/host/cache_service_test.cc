// The cache-service contract (ICacheService and ICacheObj) as the host's disk
// cache keeps it, which the library's tests also run over. Then what only the
// disk cache promises: restarts, eviction order, read-ahead. A full disk, fsync and
// the folder lock are the end-to-end and mount-check tests' part.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "services/disk_cache.h"
#include "services/job_queue.h"
#include "support/test_env.h"

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::pair<long long, long long>>;
constexpr long long B = 4096;  // the block size of every cache under test

// The remote side: serves a string in pieces of 1000 bytes (which straddle
// blocks) and records the ranges asked for. Like a node, it never sends bytes
// past the remote's end, and fails without a handle.
class StringFetch final : public IFetch {
  public:
    explicit StringFetch(std::string remote) : remote_(std::move(remote)) {}
    AERROR Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* callback) override {
        std::string remote;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.emplace_back(offset, size);
            remote = remote_;
        }
        if (handle == nullptr) return FAILED;
        if (hook) hook(offset, size);
        if (failing) return FILE_READ_FAILED;
        const long long end = std::min<long long>(offset + size, remote.size());
        for (long long pos = offset; pos < end; pos += 1000) {
            long taken = 0;
            const long piece = static_cast<long>(std::min<long long>(1000, end - pos));
            const AERROR rc = callback->FetchWrite(pos, remote.data() + pos, piece, &taken);
            if (rc != SUCCESS) return rc;
        }
        return SUCCESS;
    }
    Calls TakeCalls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(calls_);
    }
    void SetRemote(std::string remote) {
        std::lock_guard<std::mutex> lock(mutex_);
        remote_ = std::move(remote);
    }
    std::function<void(long long offset, long long size)> hook;
    std::atomic<bool> failing{false};

  private:
    std::mutex mutex_;
    std::string remote_;
    Calls calls_;
};

std::shared_ptr<_FS_HANDLE> Handle() {
    static auto handle = std::make_shared<_FS_HANDLE>();
    return handle;
}

std::string Read(ICacheObj* object, int64_t offset, uint64_t size, IFetch* fetch,
                 AERROR expected = SUCCESS, uint8_t partial = 1) {
    std::string data(size, '\0');
    _READDATA request;
    request.buffer = data.data();
    request.offset = offset;
    request.size = size;
    request.handle = Handle();
    request.fetch = fetch;
    request.partial = partial;
    EXPECT_EQ(object->Read(&request), expected) << "reading " << size << " bytes at " << offset;
    data.resize(static_cast<size_t>(request.read));
    return data;
}

AERROR Write(ICacheObj* object, int64_t offset, const std::string& data, IFetch* fetch) {
    _WRITEDATA request;
    request.buffer = data.data();
    request.offset = offset;
    request.size = data.size();
    request.handle = Handle();
    request.fetch = fetch;
    const AERROR result = object->Write(&request);
    if (result == SUCCESS) {
        EXPECT_EQ(request.written, data.size());
    }
    return result;
}

std::shared_ptr<DiskCache> MakeDisk(const std::string& dir, uint64_t maxBytes = 1ull << 30,
                                    IAsyncQ* queue = nullptr, ILog* log = nullptr,
                                    uint32_t readAheadBlocks = 0) {
    DiskCacheOptions options;
    options.blockSize = B;
    options.readAheadBlocks = readAheadBlocks;
    std::shared_ptr<DiskCache> cache;
    const Status created = DiskCache::Create(dir, maxBytes, queue, log, &cache, options);
    EXPECT_TRUE(created.ok()) << created.message();
    return cache;
}

// ---- The contract -----------------------------------------------------------

class CacheServiceContract : public ::testing::Test {
  protected:
    TempDir dir_;
    std::shared_ptr<ICacheService> cache_ = MakeDisk(dir_.path() + "/cache");
};

TEST_F(CacheServiceContract, ReadsFetchOnlyMissingBlocksInCoalescedRangesCutAtTheSize) {
    const std::string remote = RandomBytes(10 * B + 100);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\dir\\file.bin", 'r', remote.size(), &fetch);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(Read(object.get(), 2 * B + 10, 100, &fetch), remote.substr(2 * B + 10, 100));
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{2 * B, B}}));
    EXPECT_EQ(Read(object.get(), 0, 6 * B, &fetch), remote.substr(0, 6 * B));
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, 2 * B}, {3 * B, 3 * B}}));
    EXPECT_EQ(Read(object.get(), 9 * B, 5000, &fetch), remote.substr(9 * B));
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{9 * B, B + 100}}));
    EXPECT_EQ(Read(object.get(), 0, 20 * B, &fetch), remote);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{6 * B, 3 * B}}));
    EXPECT_EQ(Read(object.get(), 0, 20 * B, &fetch), remote);
    EXPECT_TRUE(fetch.TakeCalls().empty()) << "a second read fetched again";
    EXPECT_EQ(Read(object.get(), remote.size(), 10, &fetch), "");
    EXPECT_EQ(Read(object.get(), 20 * B, 10, &fetch), "");

    // A failed fetch is passed on and tried again by the next read.
    auto other = cache_->Open("\\other", 'r', 2 * B, &fetch);
    fetch.failing = true;
    Read(other.get(), 0, B, &fetch, FILE_READ_FAILED);
    fetch.failing = false;
    EXPECT_EQ(Read(other.get(), 0, B, &fetch), remote.substr(0, B));

    // Without a fetcher the file has no remote copy: missing blocks are zeros.
    auto fresh = cache_->Open("\\new", 'w', 3 * B, nullptr);
    ASSERT_EQ(Write(fresh.get(), B + 5, "abc", nullptr), SUCCESS);
    std::string expected(3 * B, '\0');
    expected.replace(B + 5, 3, "abc");
    EXPECT_EQ(Read(fresh.get(), 0, 3 * B, nullptr), expected);
}

TEST_F(CacheServiceContract, PartialWritesFetchTheRestOfTheirEdgeBlocksFirst) {
    const std::string remote = RandomBytes(10000);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\f", 'w', remote.size(), &fetch);
    ASSERT_EQ(Write(object.get(), B + 100, "0123456789", &fetch), SUCCESS);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{B, B}}));
    // Past the old end: the block holding it keeps its remote part.
    ASSERT_EQ(Write(object.get(), 9990, std::string(20, 'z'), &fetch), SUCCESS);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{2 * B, 10000 - 2 * B}}));
    ASSERT_EQ(Write(object.get(), 0, std::string(B, 'w'), &fetch), SUCCESS);
    EXPECT_TRUE(fetch.TakeCalls().empty()) << "a whole block needs nothing fetched";

    std::string expected = remote;
    expected.replace(0, B, std::string(B, 'w'));
    expected.replace(B + 100, 10, "0123456789");
    expected.replace(9990, 10, std::string(20, 'z'));
    EXPECT_EQ(Read(object.get(), 0, 20000, &fetch), expected);
    EXPECT_TRUE(fetch.TakeCalls().empty());
}

TEST_F(CacheServiceContract, WrittenBlocksWinOverFetchedData) {
    const std::string remote = RandomBytes(5 * B + 100);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\f", 'w', remote.size(), &fetch);
    const std::string local(B, 'L');
    // A write comes in while a fetch runs (a lock held across the fetch would
    // deadlock here): fetched data never replaces it.
    bool wrote = false;
    fetch.hook = [&](long long, long long) {
        if (!wrote) {
            wrote = true;
            EXPECT_EQ(Write(object.get(), B, local, &fetch), SUCCESS);
        }
    };
    std::string expected = remote;
    expected.replace(B, B, local);
    EXPECT_EQ(Read(object.get(), 0, 2 * B, &fetch), expected.substr(0, 2 * B));
    fetch.hook = nullptr;
    fetch.TakeCalls();

    // FillUnwritten fetches every block neither written nor held.
    ASSERT_EQ(object->FillUnwritten(Handle()), SUCCESS);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{2 * B, 3 * B + 100}}));
    EXPECT_EQ(Read(object.get(), 0, remote.size(), nullptr), expected);

    // The remote changed: fetched blocks go, written ones stay.
    const std::string changed = RandomBytes(5 * B + 100, 99);
    fetch.SetRemote(changed);
    ASSERT_EQ(object->DropClean(), SUCCESS);
    expected = changed;
    expected.replace(B, B, local);
    EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch), expected);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, B}, {2 * B, 3 * B + 100}}));
}

TEST_F(CacheServiceContract, SetSizeTruncatesAndExtendsWithZerosThatAreNeverFetched) {
    const std::string remote = RandomBytes(3 * B);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\f", 'w', remote.size(), &fetch);
    Read(object.get(), 0, 3 * B, &fetch);
    ASSERT_EQ(object->SetSize(B + 100), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch), remote.substr(0, B + 100));
    ASSERT_EQ(object->SetSize(3 * B), SUCCESS);
    fetch.TakeCalls();
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch),
              remote.substr(0, B + 100) + std::string(2 * B - 100, '\0'));
    EXPECT_TRUE(fetch.TakeCalls().empty());
    EXPECT_EQ(object->SetSize(-1), INVALID_PARAMETER);
    EXPECT_EQ(object->Reopen('a', 0, nullptr), CACHE_INVALID_OPEN_MODE);
    EXPECT_EQ(cache_->Open("\\g", 'x', 0, nullptr), nullptr);
}

TEST_F(CacheServiceContract, CommitKeepsTheDataAndDiscardForgetsIt) {
    const std::string remote = RandomBytes(2 * B);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\f", 'w', remote.size(), &fetch);
    ASSERT_EQ(Write(object.get(), 0, std::string(2 * B, 'w'), &fetch), SUCCESS);
    ASSERT_EQ(object->Commit(), SUCCESS);
    ASSERT_EQ(object->SetVersion("stored"), SUCCESS);
    ASSERT_EQ(object->CheckVersion("stored"), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 2 * B, &fetch), std::string(2 * B, 'w'));
    EXPECT_TRUE(fetch.TakeCalls().empty());
    // Committed data is ordinary cached data: a remote change drops it.
    ASSERT_EQ(Write(object.get(), 10, "xyz", &fetch), SUCCESS);
    ASSERT_EQ(object->Discard(), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 2 * B, &fetch), remote);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, 2 * B}}));
}

TEST_F(CacheServiceContract, RekeyMovesTheEntryAndClosedEntriesKeepTheirData) {
    auto a = cache_->Open("\\a.txt", 'w', 0, nullptr);
    ASSERT_EQ(Write(a.get(), 0, "content of a", nullptr), SUCCESS);
    auto b = cache_->Open("\\b.txt", 'w', 0, nullptr);
    ASSERT_EQ(Write(b.get(), 0, "content of b, longer", nullptr), SUCCESS);
    cache_->Close("\\b.txt");
    // Renamed while open onto another entry: the object goes on working.
    ASSERT_EQ(cache_->Rekey("\\a.txt", "\\b.txt", "etag-1"), SUCCESS);
    ASSERT_EQ(Write(a.get(), 12, "!", nullptr), SUCCESS);
    cache_->Close("\\b.txt");
    auto moved = cache_->Open("\\b.txt", 'r', 13, nullptr);
    EXPECT_EQ(Read(moved.get(), 0, 100, nullptr), "content of a!");
    auto old = cache_->Open("\\a.txt", 'r', 5, nullptr);
    EXPECT_EQ(Read(old.get(), 0, 100, nullptr), std::string(5, '\0')) << "the old key is empty";
}

TEST_F(CacheServiceContract, ConcurrentReadersAndWritersKeepEveryByte) {
    constexpr int kBlocks = 64;
    const std::string remote = RandomBytes(kBlocks * B);
    StringFetch fetch(remote);
    auto object = cache_->Open("\\shared", 'w', remote.size(), &fetch);
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {  // writers own every fourth block, half of each
        threads.emplace_back([&, w] {
            for (int block = w * 4; block < kBlocks; block += 8) {
                const std::string half(B / 2, static_cast<char>('A' + w));
                if (Write(object.get(), block * B + B / 2, half, &fetch) != SUCCESS) failed = true;
            }
        });
    }
    for (int r = 0; r < 4; ++r) {
        threads.emplace_back([&, r] {
            std::mt19937 random(r);
            for (int i = 0; i < 40; ++i) {
                const int first = static_cast<int>(random() % kBlocks);
                const int end = std::min<int>(kBlocks, first + 1 + random() % 6);
                const std::string data = Read(object.get(), first * B, (end - first) * B, &fetch);
                for (int block = first; block < end; ++block) {
                    if (block % 4 != 0 &&
                        data.compare((block - first) * B, B, remote, block * B, B))
                        failed = true;
                }
                if (r == 0 && i % 10 == 5) object->DropClean();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(failed);
    std::string expected = remote;
    for (int block = 0; block < kBlocks; block += 4)
        expected.replace(block * B + B / 2, B / 2, std::string(B / 2, block % 8 ? 'B' : 'A'));
    EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch), expected);
}

// ---- What only the disk cache does -----------------------------------------

class DiskCacheTest : public ::testing::Test {
  protected:
    static std::pair<unsigned long long, unsigned long long> Usage(ICacheService& cache) {
        unsigned long long used = 0, unsent = 0;
        EXPECT_EQ(cache.GetUsage(&used, &unsent), SUCCESS);
        return {used, unsent};
    }
    TempDir root_;
    std::string dir_ = root_.path() + "/cache";
};

TEST_F(DiskCacheTest, UsageRemoveAndTheRulesOfTheInterface) {
    const std::string remote = RandomBytes(B + 100);
    StringFetch fetch(remote + std::string(B, 'X'));  // bytes the old file never had
    auto cache = MakeDisk(dir_);
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    // Extending never fetches past the old end.
    ASSERT_EQ(object->SetSize(3 * B), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch), remote + std::string(2 * B - 100, '\0'));
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, B + 100}}));
    EXPECT_EQ(Usage(*cache).second, 1ull * B) << "the extension counts as written";
    ASSERT_EQ(object->Commit(), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(3ull * B, 0ull));
    ASSERT_EQ(object->Discard(), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(0ull, 0ull));

    // A whole-file protocol is fetched in one piece from the start.
    auto whole = cache->Open("\\whole", 'r', remote.size(), &fetch);
    EXPECT_EQ(Read(whole.get(), B, 10, &fetch, SUCCESS, 0), remote.substr(B, 10));
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, B + 100}}));

    // Remove forgets closed entries only; a held object then stops.
    ASSERT_EQ(Write(object.get(), 0, "data", nullptr), SUCCESS);
    EXPECT_EQ(cache->Remove("\\f"), SHARING_VIOLATION);
    cache->Close("\\f");
    EXPECT_EQ(cache->Remove("\\f"), SUCCESS);
    EXPECT_EQ(cache->Remove("\\f"), FILE_NOT_FOUND);
    EXPECT_EQ(Write(object.get(), 0, "late", nullptr), CACHE_NOT_OPENED);
    // A rekey onto an entry stops the replaced entry's object; closing under
    // the new key releases the moved one.
    auto a = cache->Open("\\a", 'w', 0, nullptr);
    auto b = cache->Open("\\b", 'w', 0, nullptr);
    cache->Close("\\b");
    ASSERT_EQ(cache->Rekey("\\a", "\\b", "etag"), SUCCESS);
    EXPECT_EQ(b->Read(nullptr), INVALID_PARAMETER);
    EXPECT_EQ(Write(b.get(), 0, "x", nullptr), CACHE_NOT_OPENED);
    cache->Close("\\b");
    EXPECT_EQ(cache->Remove("\\b"), SUCCESS);
    // A rekey with nothing to move still drops the target, whose file was replaced.
    auto y = cache->Open("\\y", 'w', 0, nullptr);
    ASSERT_EQ(Write(y.get(), 0, "y", nullptr), SUCCESS);
    cache->Close("\\y");
    ASSERT_EQ(cache->Rekey("\\never-cached", "\\y", nullptr), SUCCESS);
    EXPECT_EQ(cache->Remove("\\y"), FILE_NOT_FOUND);
    EXPECT_EQ(cache->Open(nullptr, 'r', 0, nullptr), nullptr);
    // A smaller size at open hides unsent data but keeps it.
    auto hidden = cache->Open("\\hidden", 'w', 0, nullptr);
    ASSERT_EQ(Write(hidden.get(), 0, std::string(3 * B, 'w'), nullptr), SUCCESS);
    cache->Close("\\hidden");
    hidden = cache->Open("\\hidden", 'r', B, nullptr);
    EXPECT_EQ(Read(hidden.get(), 0, 3 * B, nullptr), std::string(B, 'w'));
    EXPECT_EQ(Usage(*cache).second, 3ull * B);
    ASSERT_EQ(hidden->Reopen('w', 3 * B, nullptr), SUCCESS);
    EXPECT_EQ(Read(hidden.get(), 0, 3 * B, nullptr), std::string(3 * B, 'w'));
    // The closed entry of a deleted file goes once noted to belong nowhere,
    // uploaded or not, and a new file of that name starts empty.
    auto gone = cache->Open("\\gone", 'w', 0, nullptr);
    ASSERT_EQ(Write(gone.get(), 0, "old", nullptr), SUCCESS);
    ASSERT_EQ(gone->Commit(), SUCCESS);
    cache->Close("\\gone");
    const size_t entries = cache->EntryCount();
    _CACHE_ORIGIN nowhere;
    nowhere.path = "";
    cache->NoteOrigin("\\gone", &nowhere);
    EXPECT_EQ(cache->EntryCount(), entries - 1);
    auto fresh = cache->Open("\\gone", 'r', 3, nullptr);
    EXPECT_EQ(Read(fresh.get(), 0, 3, nullptr), std::string(3, '\0'));
    cache.reset();
    EXPECT_EQ(whole->SetSize(5), CACHE_NOT_OPENED) << "objects stop with the cache";
}

TEST_F(DiskCacheTest, RestartsAndFlushKeepWrittenAndFetchedData) {
    const std::string remote = RandomBytes(6 * B);
    StringFetch fetch(remote);
    std::string expected = remote;
    {
        auto cache = MakeDisk(dir_);
        auto object = cache->Open("\\docs\\report.odt", 'w', remote.size(), &fetch);
        ASSERT_EQ(object->CheckVersion("v1"), SUCCESS);
        Read(object.get(), 0, 2 * B, &fetch);
        ASSERT_EQ(Write(object.get(), 3 * B, std::string(B, 'w'), &fetch), SUCCESS);
        ASSERT_EQ(Write(object.get(), 6 * B, "tail", &fetch), SUCCESS);
        expected.replace(3 * B, B, std::string(B, 'w'));
        expected += "tail";
        // Where the entry belongs, kept in its record; a later rename's path.
        _FS_FILE_V2 base;
        base.key = "k1";
        base.size = 6 * B;
        base.extra = "\"etag\"";
        _CACHE_ORIGIN origin;
        origin.path = "/Docs/Old.odt";
        origin.base = &base;
        cache->NoteOrigin("\\docs\\report.odt", &origin);
        origin.path = "/Docs/Report.odt";
        origin.base = nullptr;
        cache->NoteOrigin("\\docs\\report.odt", &origin);
        cache->Close("\\docs\\report.odt");
        auto other = cache->Open("\\other", 'w', 0, nullptr);
        ASSERT_EQ(Write(other.get(), 0, "still open at exit", nullptr), SUCCESS);
        // Flush alone makes it durable: a copy now is what a crash leaves.
        ASSERT_EQ(cache->Flush(), SUCCESS);
        std::filesystem::copy(dir_, root_.path() + "/copy",
                              std::filesystem::copy_options::recursive);
    }
    for (const std::string& dir : {dir_, root_.path() + "/copy"}) {
        auto cache = MakeDisk(dir);
        ASSERT_NE(cache, nullptr);
        const auto unsent = cache->UnsentEntries();
        ASSERT_EQ(unsent.size(), 2u);
        EXPECT_EQ(unsent[0].key, "\\docs\\report.odt");
        EXPECT_EQ(unsent[0].origin.path, "/Docs/Report.odt");
        EXPECT_TRUE(unsent[0].origin.based);
        EXPECT_EQ(unsent[0].origin.baseSize, 6 * B);
        EXPECT_EQ(unsent[0].origin.baseExtra, "\"etag\"");
        EXPECT_EQ(unsent[1].key, "\\other");
        EXPECT_FALSE(unsent[1].origin.known);
        EXPECT_EQ(Usage(*cache), std::make_pair(3ull * B + 4 + 18, 1ull * B + 4 + 18));
        auto object = cache->Open("\\docs\\report.odt", 'r', expected.size(), &fetch);
        fetch.TakeCalls();
        // Fetched blocks of the version the remote still has are read again.
        ASSERT_EQ(object->CheckVersion("v1"), SUCCESS);
        EXPECT_EQ(Read(object.get(), 0, expected.size(), &fetch), expected);
        EXPECT_EQ(fetch.TakeCalls(), (Calls{{2 * B, B}, {4 * B, 2 * B}}));
        // Another version drops them all and keeps the written ones.
        ASSERT_EQ(object->CheckVersion("v2"), SUCCESS);
        EXPECT_EQ(Read(object.get(), 0, expected.size(), &fetch), expected);
        EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, 3 * B}, {4 * B, 2 * B}}));
        auto other = cache->Open("\\other", 'r', 18, nullptr);
        EXPECT_EQ(Read(other.get(), 0, 100, nullptr), "still open at exit");
    }
}

// A folder of an older version, with a text record per entry or an index of
// the first version, keeps its unsent data; an index of a newer version is
// refused.
TEST_F(DiskCacheTest, UnsentDataOutlivesOlderVersionsAndRestartsAndANewerIndexIsRefused) {
    std::filesystem::create_directories(dir_ + "/data");
    ASSERT_TRUE(WriteFile(dir_ + "/data/00000000000000aa.data", "unsent"));
    ASSERT_TRUE(WriteFile(dir_ + "/data/00000000000000aa.map",
                          "skarvo-cache-entry 1\nblock-size 4096\nsize 6\nfetch-limit 0\n"
                          "key 4:\\a.t\nextra 0:\nblocks w1\norigin 4:/A.t\nremote 5:local\n"
                          "base-size -1\nbase-time 0:\nbase-extra 0:\n"));
    const auto sql = [&](const char* statement) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open((dir_ + "/index.db").c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, statement, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    };
    // Runs: the text records imported, the index reopened, an index of the
    // first version upgraded, and a row saved at a close before its data was
    // synced, in this boot of the machine and in an earlier one.
    const std::string boot = CurrentBootId();
    for (int run = 0; run < 5; ++run) {
        if (run == 2) {
            sql("ALTER TABLE entries DROP COLUMN clean_version; "
                "ALTER TABLE entries DROP COLUMN unsynced_boot; PRAGMA user_version = 1");
        }
        if (run == 3) sql(("UPDATE entries SET unsynced_boot = '" + boot + "'").c_str());
        if (run == 4) sql("UPDATE entries SET unsynced_boot = 'an earlier boot'");
        auto cache = MakeDisk(dir_);
        const auto unsent = cache->UnsentEntries();
        ASSERT_EQ(unsent.size(), 1u);
        EXPECT_EQ(unsent[0].key, "\\a.t");
        EXPECT_EQ(unsent[0].origin.path, "/A.t");
        EXPECT_EQ(unsent[0].bytes, 6u);
        EXPECT_EQ(unsent[0].mayBeIncomplete, run == 4 && !boot.empty());
        auto object = cache->Open("\\a.t", 'r', 6, nullptr);
        EXPECT_EQ(Read(object.get(), 0, 6, nullptr), "unsent");
        cache->Close("\\a.t");
        EXPECT_FALSE(std::filesystem::exists(dir_ + "/data/00000000000000aa.map"));
    }
    // Blocks fetched before a restart of the machine are fetched again.
    const std::string remote = RandomBytes(3 * B);
    StringFetch fetch(remote);
    {
        auto cache = MakeDisk(dir_);
        auto object = cache->Open("\\f.bin", 'r', remote.size(), &fetch);
        EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch), remote);
        cache->Close("\\f.bin");
    }
    sql("UPDATE entries SET unsynced_boot = 'an earlier boot'");
    fetch.TakeCalls();
    {
        auto cache = MakeDisk(dir_);
        auto object = cache->Open("\\f.bin", 'r', remote.size(), &fetch);
        EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch), remote);
        EXPECT_EQ(fetch.TakeCalls().empty(), boot.empty());
        cache->Close("\\f.bin");
    }
    sql("PRAGMA user_version = 99");
    std::shared_ptr<DiskCache> newer;
    EXPECT_FALSE(DiskCache::Create(dir_, 1ull << 30, nullptr, nullptr, &newer).ok());
}

TEST_F(DiskCacheTest, EvictionDropsOldestCleanEntriesAndNeverUnsentData) {
    StringFetch fetch(RandomBytes(2 * B));
    RecordingLog log;
    auto cache = MakeDisk(dir_, 4 * B, nullptr, &log);
    auto unsent = cache->Open("\\unsent", 'w', 0, nullptr);
    ASSERT_EQ(Write(unsent.get(), 0, std::string(2 * B, 'u'), nullptr), SUCCESS);
    cache->Close("\\unsent");
    for (const char* key : {"\\old", "\\newer"}) {
        auto object = cache->Open(key, 'r', B, &fetch);
        Read(object.get(), 0, B, &fetch);
        cache->Close(key);
    }
    auto open = cache->Open("\\open", 'r', B, &fetch);
    Read(open.get(), 0, B, &fetch);
    EXPECT_EQ(Usage(*cache), std::make_pair(4ull * B, 2ull * B));
    EXPECT_EQ(cache->EntryCount(), 3u);
    fetch.TakeCalls();
    auto newer = cache->Open("\\newer", 'r', B, &fetch);
    Read(newer.get(), 0, B, &fetch);
    EXPECT_TRUE(fetch.TakeCalls().empty()) << "the more recently used entry was evicted";
    auto old = cache->Open("\\old", 'r', B, &fetch);
    Read(old.get(), 0, B, &fetch);
    EXPECT_EQ(fetch.TakeCalls(), (Calls{{0, B}})) << "the oldest entry was not evicted";

    // Unsent data grows past the limit with one warning, and goes once committed.
    unsent = cache->Open("\\unsent", 'w', 2 * B, nullptr);
    for (int i = 2; i < 6; ++i)
        ASSERT_EQ(Write(unsent.get(), i * B, std::string(B, 'a' + i), nullptr), SUCCESS);
    for (const char* key : {"\\unsent", "\\newer", "\\old", "\\open"})
        cache->Close(key);
    EXPECT_EQ(Usage(*cache), std::make_pair(6ull * B, 6ull * B));
    EXPECT_EQ(cache->EntryCount(), 1u);
    EXPECT_EQ(log.Count("over the limit", LL_WARNING), 1) << "warned once";
    unsent = cache->Open("\\unsent", 'r', 6 * B, nullptr);
    EXPECT_EQ(Read(unsent.get(), 5 * B, B, nullptr), std::string(B, 'f'));
    ASSERT_EQ(unsent->Commit(), SUCCESS);
    cache->Close("\\unsent");
    EXPECT_LE(Usage(*cache).first, 4ull * B) << "committed data is evicted again";
}

TEST_F(DiskCacheTest, SequentialReadsFetchAheadOnTheQueueWithoutFetchingTwice) {
    const std::string remote = RandomBytes(32 * B);
    StringFetch fetch(remote);
    std::mutex mutex;
    std::map<long long, int> fetchedBlocks;
    std::atomic<bool> closed{false};
    std::atomic<int> fetchesAfterClose{0};
    fetch.hook = [&](long long offset, long long size) {
        if (closed) ++fetchesAfterClose;
        std::lock_guard<std::mutex> lock(mutex);
        for (long long block = offset / B; block * B < offset + size; ++block)
            ++fetchedBlocks[block];
    };
    JobQueue queue;
    auto cache = MakeDisk(dir_, 1ull << 30, &queue, nullptr, /*readAheadBlocks=*/4);
    auto object = cache->Open("\\movie", 'r', remote.size(), &fetch);
    EXPECT_EQ(Read(object.get(), 0, B, &fetch), remote.substr(0, B));
    EXPECT_EQ(Read(object.get(), B, B, &fetch), remote.substr(B, B));
    for (const auto deadline = std::chrono::steady_clock::now() + 60s;;) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (fetchedBlocks.count(5) != 0) break;
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "no read-ahead";
        std::this_thread::sleep_for(1ms);
    }
    for (int block = 2; block < 12; ++block)
        EXPECT_EQ(Read(object.get(), block * B, B, &fetch), remote.substr(block * B, B));
    cache->Close("\\movie");
    closed = true;
    queue.Drain();
    EXPECT_EQ(fetchesAfterClose, 0);
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [block, count] : fetchedBlocks)
        EXPECT_EQ(count, 1) << "block " << block;
}

}  // namespace
