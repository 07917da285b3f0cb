// The disk cache through ICacheService and ICacheObj: filling from the remote,
// local writes, size changes, rekeying, restarts, eviction and the folder lock.
#include "services/disk_cache.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "services/job_queue.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t B = 4096;  // the block size of the caches under test

// Distinct bytes everywhere, so that data landing in the wrong place shows.
std::string Pattern(size_t size, int seed = 0) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 31 + i / 251 + seed) % 256);
    return data;
}

// The remote side: serves bytes of a string in small pieces, and records the
// ranges asked for. Like a node, it never sends bytes past the remote's end.
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
        for (long long pos = offset; pos < end; pos += kPiece) {
            const long piece = static_cast<long>(std::min<long long>(kPiece, end - pos));
            long taken = 0;
            const AERROR result = callback->FetchWrite(pos, remote.data() + pos, piece, &taken);
            if (result != SUCCESS) return result;
        }
        return SUCCESS;
    }

    std::vector<std::pair<long long, long long>> Calls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    void ClearCalls() {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.clear();
    }
    void SetRemote(std::string remote) {
        std::lock_guard<std::mutex> lock(mutex_);
        remote_ = std::move(remote);
    }

    std::function<void(long long offset, long long size)> hook;
    std::atomic<bool> failing{false};

  private:
    static constexpr long long kPiece = 1000;  // pieces that straddle blocks
    std::mutex mutex_;
    std::string remote_;
    std::vector<std::pair<long long, long long>> calls_;
};

using Calls = std::vector<std::pair<long long, long long>>;

class CapturingLog : public ILog {
  public:
    bool IsEnabled(LOGLEVEL) override { return true; }
    void LogV(LOGLEVEL level, const char* format, va_list args) override {
        char line[1024];
        vsnprintf(line, sizeof(line), format, args);
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.emplace_back(level, line);
    }
    int Count(LOGLEVEL level, const std::string& part) {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto& line) {
            return line.first == level && line.second.find(part) != std::string::npos;
        }));
    }

  private:
    std::mutex mutex_;
    std::vector<std::pair<LOGLEVEL, std::string>> lines_;
};

class DiskCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/disk_cache_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
        dir_ = root_ + "/cache";
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    std::shared_ptr<DiskCache> Make(uint64_t maxBytes = 1ull << 30, IAsyncQ* queue = nullptr,
                                    ILog* log = nullptr, uint32_t readAheadBlocks = 0,
                                    const std::string& dir = "") {
        DiskCacheOptions options;
        options.blockSize = B;
        options.readAheadBlocks = readAheadBlocks;
        std::string error;
        auto cache =
            DiskCache::Create(dir.empty() ? dir_ : dir, maxBytes, queue, log, &error, options);
        EXPECT_NE(cache, nullptr) << error;
        return cache;
    }

    std::string Read(ICacheObj* object, int64_t offset, uint64_t size, IFetch* fetch,
                     uint8_t partial = 1) {
        std::string data(size, '\0');
        _READDATA request;
        request.buffer = data.data();
        request.offset = offset;
        request.size = size;
        request.handle = handle_;
        request.fetch = fetch;
        request.partial = partial;
        const AERROR result = object->Read(&request);
        EXPECT_EQ(result, SUCCESS) << "reading " << size << " bytes at " << offset;
        data.resize(result == SUCCESS ? static_cast<size_t>(request.read) : 0);
        return data;
    }

    AERROR Write(ICacheObj* object, int64_t offset, const std::string& data, IFetch* fetch) {
        _WRITEDATA request;
        request.buffer = data.data();
        request.offset = offset;
        request.size = data.size();
        request.handle = handle_;
        request.fetch = fetch;
        const AERROR result = object->Write(&request);
        if (result == SUCCESS) {
            EXPECT_EQ(request.written, data.size());
        }
        return result;
    }

    static std::pair<unsigned long long, unsigned long long> Usage(DiskCache& cache) {
        unsigned long long used = 0;
        unsigned long long unsent = 0;
        EXPECT_EQ(cache.GetUsage(&used, &unsent), SUCCESS);
        return {used, unsent};
    }

    std::string root_;
    std::string dir_;
    std::shared_ptr<_FS_HANDLE> handle_ = std::make_shared<_FS_HANDLE>();
};

TEST_F(DiskCacheTest, ReadsFetchOnlyMissingBlocksInCoalescedRanges) {
    const std::string remote = Pattern(10 * B);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\dir\\file.bin", 'r', remote.size(), &fetch);
    ASSERT_NE(object, nullptr);

    EXPECT_EQ(Read(object.get(), 2 * B + 10, 100, &fetch), remote.substr(2 * B + 10, 100));
    EXPECT_EQ(fetch.Calls(), (Calls{{2 * B, B}}));

    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, 6 * B, &fetch), remote.substr(0, 6 * B));
    EXPECT_EQ(fetch.Calls(), (Calls{{0, 2 * B}, {3 * B, 3 * B}}));

    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, 10 * B, &fetch), remote);
    EXPECT_EQ(fetch.Calls(), (Calls{{6 * B, 4 * B}}));

    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, 10 * B, &fetch), remote);
    EXPECT_TRUE(fetch.Calls().empty()) << "a second read fetched again";
    EXPECT_EQ(Usage(*cache).first, remote.size());
}

TEST_F(DiskCacheTest, ReadsAreCutAtTheSize) {
    const std::string remote = Pattern(10000);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'r', remote.size(), &fetch);
    EXPECT_EQ(Read(object.get(), 9000, 5000, &fetch), remote.substr(9000));
    EXPECT_EQ(fetch.Calls(), (Calls{{2 * B, 10000 - 2 * B}}));
    EXPECT_EQ(Read(object.get(), 10000, 10, &fetch), "");
    EXPECT_EQ(Read(object.get(), 20000, 10, &fetch), "");
    EXPECT_EQ(Usage(*cache).first, 10000u - 2 * B);
}

TEST_F(DiskCacheTest, WithoutAFetcherMissingBlocksReadAsZeros) {
    auto cache = Make();
    auto object = cache->Open("\\new", 'w', 3 * B, nullptr);
    ASSERT_EQ(Write(object.get(), B + 5, "abc", nullptr), SUCCESS);
    std::string expected(3 * B, '\0');
    expected.replace(B + 5, 3, "abc");
    EXPECT_EQ(Read(object.get(), 0, 3 * B, nullptr), expected);
}

TEST_F(DiskCacheTest, WholeFileProtocolsAreFetchedInOnePieceFromTheStart) {
    const std::string remote = Pattern(5 * B + 7);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\whole", 'r', remote.size(), &fetch);
    EXPECT_EQ(Read(object.get(), 3 * B, 10, &fetch, /*partial=*/0), remote.substr(3 * B, 10));
    EXPECT_EQ(fetch.Calls(), (Calls{{0, static_cast<long long>(remote.size())}}));
    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch, 0), remote);
    EXPECT_TRUE(fetch.Calls().empty());
}

TEST_F(DiskCacheTest, AFailedFetchIsReportedAndTriedAgainLater) {
    const std::string remote = Pattern(2 * B);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'r', remote.size(), &fetch);
    fetch.failing = true;
    std::string buffer(B, '\0');
    _READDATA request;
    request.buffer = buffer.data();
    request.size = B;
    request.handle = handle_;
    request.fetch = &fetch;
    request.partial = 1;
    EXPECT_EQ(object->Read(&request), FILE_READ_FAILED);
    EXPECT_EQ(Usage(*cache).first, 0u);
    fetch.failing = false;
    EXPECT_EQ(Read(object.get(), 0, B, &fetch), remote.substr(0, B));
}

TEST_F(DiskCacheTest, FetchedDataNeverReplacesABlockWrittenDuringTheFetch) {
    const std::string remote = Pattern(4 * B);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    const std::string local(B, 'L');
    // The write comes in while the fetch runs; a lock held across the fetch
    // would deadlock here.
    bool wrote = false;
    fetch.hook = [&](long long, long long) {
        if (wrote) return;
        wrote = true;
        EXPECT_EQ(Write(object.get(), B, local, &fetch), SUCCESS);
    };
    std::string expected = remote;
    expected.replace(B, B, local);
    EXPECT_EQ(Read(object.get(), 0, 4 * B, &fetch), expected);
    EXPECT_EQ(Read(object.get(), 0, 4 * B, nullptr), expected);
    EXPECT_EQ(Usage(*cache), std::make_pair(4ull * B, 1ull * B));
}

TEST_F(DiskCacheTest, WrittenBlocksSurviveDropCleanWhileFetchedOnesAreFetchedAgain) {
    StringFetch fetch(Pattern(4 * B));
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', 4 * B, &fetch);
    Read(object.get(), 0, 4 * B, &fetch);
    const std::string local(B, 'L');
    ASSERT_EQ(Write(object.get(), 2 * B, local, &fetch), SUCCESS);

    const std::string changed = Pattern(4 * B, 99);
    fetch.SetRemote(changed);
    ASSERT_EQ(object->DropClean(), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(1ull * B, 1ull * B));
    fetch.ClearCalls();
    std::string expected = changed;
    expected.replace(2 * B, B, local);
    EXPECT_EQ(Read(object.get(), 0, 4 * B, &fetch), expected);
    EXPECT_EQ(fetch.Calls(), (Calls{{0, 2 * B}, {3 * B, B}}));
}

TEST_F(DiskCacheTest, PartialWritesFetchTheRestOfAnAbsentBlockFirst) {
    const std::string remote = Pattern(10000);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);

    ASSERT_EQ(Write(object.get(), B + 100, "0123456789", &fetch), SUCCESS);
    EXPECT_EQ(fetch.Calls(), (Calls{{B, B}}));
    // Past the old end: the block holding it keeps its remote part.
    ASSERT_EQ(Write(object.get(), 9990, std::string(20, 'z'), &fetch), SUCCESS);
    EXPECT_EQ(fetch.Calls(), (Calls{{B, B}, {2 * B, 10000 - 2 * B}}));
    // A whole block needs nothing fetched.
    ASSERT_EQ(Write(object.get(), 0, std::string(B, 'w'), &fetch), SUCCESS);
    EXPECT_EQ(fetch.Calls().size(), 2u);

    std::string expected = remote;
    expected.replace(0, B, std::string(B, 'w'));
    expected.replace(B + 100, 10, "0123456789");
    expected.replace(9990, 10, std::string(10, 'z'));
    expected += std::string(10, 'z');
    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, 20000, &fetch), expected);
    EXPECT_TRUE(fetch.Calls().empty());
}

TEST_F(DiskCacheTest, FillUnwrittenFetchesEveryBlockNotWrittenOrHeld) {
    const std::string remote = Pattern(5 * B + 100);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    Read(object.get(), 3 * B, 10, &fetch);
    ASSERT_EQ(Write(object.get(), B, std::string(B, 'w'), &fetch), SUCCESS);
    fetch.ClearCalls();

    ASSERT_EQ(object->FillUnwritten(handle_), SUCCESS);
    EXPECT_EQ(fetch.Calls(), (Calls{{0, B}, {2 * B, B}, {4 * B, B + 100}}));
    std::string expected = remote;
    expected.replace(B, B, std::string(B, 'w'));
    EXPECT_EQ(Read(object.get(), 0, remote.size(), nullptr), expected);
    EXPECT_EQ(Usage(*cache), std::make_pair(5ull * B + 100, 1ull * B));
}

TEST_F(DiskCacheTest, SetSizeTruncatesAndExtendsWithZerosThatAreNeverFetched) {
    const std::string remote = Pattern(3 * B);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    Read(object.get(), 0, 3 * B, &fetch);

    ASSERT_EQ(object->SetSize(B + 100), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch), remote.substr(0, B + 100));
    ASSERT_EQ(object->SetSize(3 * B), SUCCESS);
    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch),
              remote.substr(0, B + 100) + std::string(2 * B - 100, '\0'));
    EXPECT_TRUE(fetch.Calls().empty());
    const auto [used, unsent] = Usage(*cache);
    EXPECT_EQ(used, 3ull * B);
    EXPECT_GE(unsent, 2ull * B - 100) << "the extension counts as written";
    EXPECT_EQ(object->SetSize(-1), INVALID_PARAMETER);
}

TEST_F(DiskCacheTest, ExtendingNeverFetchesPastTheOldEnd) {
    const std::string remote = Pattern(B + 100);
    StringFetch fetch(remote + std::string(B, 'X'));  // bytes the old file never had
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    ASSERT_EQ(object->SetSize(3 * B), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, &fetch), remote + std::string(2 * B - 100, '\0'));
    EXPECT_EQ(fetch.Calls(), (Calls{{0, B + 100}}));
}

TEST_F(DiskCacheTest, CommitKeepsTheDataAsCacheAndDiscardForgetsIt) {
    const std::string remote = Pattern(2 * B);
    StringFetch fetch(remote);
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', remote.size(), &fetch);
    ASSERT_EQ(Write(object.get(), 0, std::string(2 * B, 'w'), &fetch), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(2ull * B, 2ull * B));

    ASSERT_EQ(object->Commit(), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(2ull * B, 0ull));
    EXPECT_EQ(Read(object.get(), 0, 2 * B, &fetch), std::string(2 * B, 'w'));
    EXPECT_TRUE(fetch.Calls().empty());

    ASSERT_EQ(Write(object.get(), 10, "xyz", &fetch), SUCCESS);
    ASSERT_EQ(object->Discard(), SUCCESS);
    EXPECT_EQ(Usage(*cache), std::make_pair(0ull, 0ull));
    EXPECT_EQ(Read(object.get(), 0, 2 * B, &fetch), remote);
    EXPECT_EQ(fetch.Calls(), (Calls{{0, 2 * B}}));
}

TEST_F(DiskCacheTest, RekeyMovesTheEntryAndReplacesAnyTarget) {
    auto cache = Make();
    auto a = cache->Open("\\a.txt", 'w', 0, nullptr);
    ASSERT_EQ(Write(a.get(), 0, "content of a", nullptr), SUCCESS);
    auto b = cache->Open("\\b.txt", 'w', 0, nullptr);
    ASSERT_EQ(Write(b.get(), 0, "content of b, longer", nullptr), SUCCESS);
    cache->Close("\\b.txt");

    // Renamed while open: the object goes on working under its new key.
    ASSERT_EQ(cache->Rekey("\\a.txt", "\\b.txt", "etag-1"), SUCCESS);
    EXPECT_EQ(cache->EntryCount(), 1u);
    EXPECT_EQ(b->Read(nullptr), INVALID_PARAMETER);
    EXPECT_EQ(Write(b.get(), 0, "x", nullptr), CACHE_NOT_OPENED) << "the replaced entry is gone";
    ASSERT_EQ(Write(a.get(), 12, "!", nullptr), SUCCESS);
    cache->Close("\\b.txt");
    EXPECT_EQ(cache->Remove("\\b.txt"), SUCCESS) << "closing under the new key released it";

    a = cache->Open("\\x", 'w', 0, nullptr);
    ASSERT_EQ(Write(a.get(), 0, "moved", nullptr), SUCCESS);
    cache->Close("\\x");
    ASSERT_EQ(cache->Rekey("\\x", "\\dir\\y", nullptr), SUCCESS);
    auto y = cache->Open("\\dir\\y", 'r', 5, nullptr);
    EXPECT_EQ(Read(y.get(), 0, 100, nullptr), "moved");
    auto x = cache->Open("\\x", 'r', 5, nullptr);
    EXPECT_EQ(Read(x.get(), 0, 100, nullptr), std::string(5, '\0')) << "the old key is empty";

    // Nothing to move: the target still goes, as its file was replaced.
    ASSERT_EQ(cache->Rekey("\\never-cached", "\\dir\\y", nullptr), SUCCESS);
    cache->Close("\\dir\\y");
    EXPECT_EQ(cache->Remove("\\dir\\y"), FILE_NOT_FOUND);
}

TEST_F(DiskCacheTest, ARestartKeepsWrittenAndFetchedData) {
    const std::string remote = Pattern(6 * B);
    StringFetch fetch(remote);
    std::string expected = remote;
    {
        auto cache = Make();
        auto object = cache->Open("\\docs\\report.odt", 'w', remote.size(), &fetch);
        Read(object.get(), 0, 2 * B, &fetch);
        ASSERT_EQ(Write(object.get(), 3 * B, std::string(B, 'w'), &fetch), SUCCESS);
        ASSERT_EQ(Write(object.get(), 6 * B, "tail", &fetch), SUCCESS);
        expected.replace(3 * B, B, std::string(B, 'w'));
        expected += "tail";
        cache->Close("\\docs\\report.odt");
        auto other = cache->Open("\\other", 'w', 0, nullptr);
        ASSERT_EQ(Write(other.get(), 0, "still open at exit", nullptr), SUCCESS);
    }
    auto cache = Make();
    EXPECT_EQ(cache->UnsentKeys(), (std::vector<std::string>{"\\docs\\report.odt", "\\other"}));
    EXPECT_EQ(Usage(*cache), std::make_pair(3ull * B + 4 + 18, 1ull * B + 4 + 18));

    auto object = cache->Open("\\docs\\report.odt", 'r', expected.size(), &fetch);
    fetch.ClearCalls();
    EXPECT_EQ(Read(object.get(), 0, expected.size(), &fetch), expected);
    EXPECT_EQ(fetch.Calls(), (Calls{{2 * B, B}, {4 * B, 2 * B}}));
    auto other = cache->Open("\\other", 'r', 18, nullptr);
    EXPECT_EQ(Read(other.get(), 0, 100, nullptr), "still open at exit");
}

TEST_F(DiskCacheTest, FlushMakesWrittenDataDurableWithoutAClose) {
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', 0, nullptr);
    ASSERT_EQ(Write(object.get(), 0, "flushed bytes", nullptr), SUCCESS);
    ASSERT_EQ(cache->Flush(), SUCCESS);
    // What a crash right now would leave behind.
    const std::string copy = root_ + "/copy";
    std::filesystem::copy(dir_, copy, std::filesystem::copy_options::recursive);
    auto restored = Make(1ull << 30, nullptr, nullptr, 0, copy);
    ASSERT_NE(restored, nullptr);
    auto again = restored->Open("\\f", 'r', 13, nullptr);
    EXPECT_EQ(Read(again.get(), 0, 100, nullptr), "flushed bytes");
    EXPECT_EQ(Usage(*restored).second, 13u);
}

TEST_F(DiskCacheTest, ASmallerSizeAtOpenHidesButKeepsUnsentData) {
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', 0, nullptr);
    ASSERT_EQ(Write(object.get(), 0, std::string(3 * B, 'w'), nullptr), SUCCESS);
    cache->Close("\\f");
    object = cache->Open("\\f", 'r', B, nullptr);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, nullptr), std::string(B, 'w'));
    EXPECT_EQ(Usage(*cache).second, 3ull * B);
    ASSERT_EQ(object->Reopen('w', 3 * B, nullptr), SUCCESS);
    EXPECT_EQ(Read(object.get(), 0, 3 * B, nullptr), std::string(3 * B, 'w'));
}

TEST_F(DiskCacheTest, EvictionDropsTheOldestClosedCleanEntriesFirst) {
    const std::string remote = Pattern(2 * B);
    StringFetch fetch(remote);
    auto cache = Make(4 * B);
    auto unsent = cache->Open("\\unsent", 'w', 0, nullptr);
    ASSERT_EQ(Write(unsent.get(), 0, std::string(2 * B, 'u'), nullptr), SUCCESS);
    cache->Close("\\unsent");
    for (const char* key : {"\\old", "\\newer"}) {
        auto object = cache->Open(key, 'r', B, &fetch);
        Read(object.get(), 0, B, &fetch);
        cache->Close(key);
    }
    EXPECT_EQ(Usage(*cache).first, 4ull * B);

    auto open = cache->Open("\\open", 'r', B, &fetch);
    Read(open.get(), 0, B, &fetch);
    EXPECT_EQ(Usage(*cache), std::make_pair(4ull * B, 2ull * B));
    EXPECT_EQ(cache->EntryCount(), 3u);

    fetch.ClearCalls();
    auto newer = cache->Open("\\newer", 'r', B, &fetch);
    Read(newer.get(), 0, B, &fetch);
    EXPECT_TRUE(fetch.Calls().empty()) << "the more recently used entry was evicted";
    auto kept = cache->Open("\\unsent", 'r', 2 * B, nullptr);
    EXPECT_EQ(Read(kept.get(), 0, 2 * B, nullptr), std::string(2 * B, 'u'));
    auto old = cache->Open("\\old", 'r', B, &fetch);
    Read(old.get(), 0, B, &fetch);
    EXPECT_EQ(fetch.Calls(), (Calls{{0, B}})) << "the oldest entry was not evicted";
}

TEST_F(DiskCacheTest, UnsentDataGrowsPastTheLimitWithAWarning) {
    CapturingLog log;
    StringFetch fetch(Pattern(B));
    auto cache = Make(2 * B, nullptr, &log);
    auto clean = cache->Open("\\clean", 'r', B, &fetch);
    Read(clean.get(), 0, B, &fetch);
    cache->Close("\\clean");

    auto object = cache->Open("\\big", 'w', 0, nullptr);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(Write(object.get(), i * B, std::string(B, 'a' + i), nullptr), SUCCESS);
    }
    cache->Close("\\big");
    EXPECT_EQ(Usage(*cache), std::make_pair(4ull * B, 4ull * B)) << "the clean entry goes first";
    EXPECT_EQ(cache->EntryCount(), 1u);
    EXPECT_EQ(log.Count(LL_WARNING, "over the limit"), 1);

    object = cache->Open("\\big", 'r', 4 * B, nullptr);
    EXPECT_EQ(Read(object.get(), 3 * B, B, nullptr), std::string(B, 'd'));
    ASSERT_EQ(object->Commit(), SUCCESS);
    cache->Close("\\big");
    EXPECT_LE(Usage(*cache).first, 2ull * B) << "committed data is evicted again";
}

TEST_F(DiskCacheTest, ACacheFolderInUseIsRefused) {
    auto first = Make();
    std::string error;
    EXPECT_EQ(DiskCache::Create(dir_, 1 << 20, nullptr, nullptr, &error), nullptr);
    EXPECT_NE(error.find("cache directory " + dir_ + " is in use by another skarvo process"),
              std::string::npos)
        << error;
    EXPECT_NE(error.find(dir_ + "/lock"), std::string::npos) << error;

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::string childError;
        auto refused = DiskCache::Create(dir_, 1 << 20, nullptr, nullptr, &childError);
        _exit(refused == nullptr && childError.find("in use") != std::string::npos ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "another process got the folder";

    first.reset();
    EXPECT_NE(Make(), nullptr) << "the folder is free again once the cache is gone";
}

TEST_F(DiskCacheTest, RemoveForgetsClosedEntriesOnly) {
    auto cache = Make();
    auto object = cache->Open("\\f", 'w', 0, nullptr);
    ASSERT_EQ(Write(object.get(), 0, "data", nullptr), SUCCESS);
    EXPECT_EQ(cache->Remove("\\f"), SHARING_VIOLATION);
    cache->Close("\\f");
    EXPECT_EQ(cache->Remove("\\f"), SUCCESS);
    EXPECT_EQ(cache->Remove("\\f"), FILE_NOT_FOUND);
    EXPECT_EQ(Usage(*cache), std::make_pair(0ull, 0ull));
    EXPECT_EQ(Write(object.get(), 0, "late", nullptr), CACHE_NOT_OPENED);
}

TEST_F(DiskCacheTest, OpenModesAreCheckedAndTheObjectsStopWithTheCache) {
    auto cache = Make();
    EXPECT_EQ(cache->Open("\\f", 'x', 0, nullptr), nullptr);
    EXPECT_EQ(cache->Open(nullptr, 'r', 0, nullptr), nullptr);
    auto object = cache->Open("\\f", 'r', 0, nullptr);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(object->Reopen('a', 0, nullptr), CACHE_INVALID_OPEN_MODE);
    EXPECT_EQ(object->Reopen('w', 10, nullptr), SUCCESS);
    cache.reset();
    EXPECT_EQ(object->SetSize(5), CACHE_NOT_OPENED);
}

TEST_F(DiskCacheTest, SequentialReadsFetchAheadOnTheQueueWithoutFetchingTwice) {
    const std::string remote = Pattern(32 * B);
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
    auto cache = Make(1ull << 30, &queue, nullptr, /*readAheadBlocks=*/4);
    auto object = cache->Open("\\movie", 'r', remote.size(), &fetch);

    EXPECT_EQ(Read(object.get(), 0, B, &fetch), remote.substr(0, B));
    EXPECT_EQ(Read(object.get(), B, B, &fetch), remote.substr(B, B));
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (fetchedBlocks.count(5) != 0) break;
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "no read-ahead";
        std::this_thread::sleep_for(1ms);
    }
    for (int block = 2; block < 12; ++block) {
        EXPECT_EQ(Read(object.get(), block * B, B, &fetch), remote.substr(block * B, B));
    }
    cache->Close("\\movie");
    closed = true;
    queue.Drain();
    EXPECT_EQ(fetchesAfterClose, 0);
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [block, count] : fetchedBlocks)
        EXPECT_EQ(count, 1) << "block " << block;
}

TEST_F(DiskCacheTest, ConcurrentReadersAndWritersKeepEveryByte) {
    constexpr int kBlocks = 64;
    const std::string remote = Pattern(kBlocks * B);
    StringFetch fetch(remote);
    JobQueue queue;
    auto cache = Make(1ull << 30, &queue, nullptr, 4);
    auto object = cache->Open("\\shared", 'w', remote.size(), &fetch);
    // Writers own the blocks whose number is a multiple of 4, one in 4 each.
    const auto isWritten = [](int block) { return block % 4 == 0; };
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w) {
        threads.emplace_back([&, w] {
            for (int block = w * 4; block < kBlocks; block += 8) {
                // Half blocks: the other half comes from the remote.
                if (Write(object.get(), block * B + B / 2, std::string(B / 2, 'A' + w), &fetch) !=
                    SUCCESS) {
                    failed = true;
                }
            }
        });
    }
    for (int r = 0; r < 4; ++r) {
        threads.emplace_back([&, r] {
            std::mt19937 random(r);
            for (int i = 0; i < 40; ++i) {
                const int first = static_cast<int>(random() % kBlocks);
                const int count = 1 + static_cast<int>(random() % 6);
                const int end = std::min(kBlocks, first + count);
                const std::string data = Read(object.get(), first * B, (end - first) * B, &fetch);
                for (int block = first; block < end && !failed; ++block) {
                    if (isWritten(block)) continue;
                    if (data.compare((block - first) * B, B, remote, block * B, B) != 0) {
                        failed = true;
                    }
                }
                if (r == 0 && i % 10 == 5) object->DropClean();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_FALSE(failed);
    std::string expected = remote;
    for (int block = 0; block < kBlocks; block += 4) {
        expected.replace(block * B + B / 2, B / 2, std::string(B / 2, block % 8 == 0 ? 'A' : 'B'));
    }
    EXPECT_EQ(Read(object.get(), 0, remote.size(), &fetch), expected);
    cache->Close("\\shared");
}

}  // namespace
