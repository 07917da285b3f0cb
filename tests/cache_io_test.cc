#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "data/cache_io.h"
#include "support/test_env.h"

namespace {

// Bytes at offsets, growing as written. The pipes serialise their calls into
// it, so it needs no lock of its own.
class MemoryTarget : public ICacheObj {
  public:
    AERROR Read(_READDATA* r) override {
        if (failWith != SUCCESS) return failWith;
        const uint64_t have = r->offset < static_cast<int64_t>(data.size())
                                  ? data.size() - static_cast<uint64_t>(r->offset)
                                  : 0;
        r->read = static_cast<int64_t>(std::min<uint64_t>(r->size, have));
        memcpy(r->buffer, data.data() + r->offset, static_cast<size_t>(r->read));
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA* w) override {
        if (failWith != SUCCESS) return failWith;
        if (data.size() < w->offset + w->size) data.resize(w->offset + w->size);
        memcpy(data.data() + w->offset, w->buffer, w->size);
        w->written = w->size;
        return SUCCESS;
    }
    AERROR Reopen(char, long long, IFetch*) override { return SUCCESS; }
    AERROR SetSize(long long) override { return SUCCESS; }
    AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE>) override { return SUCCESS; }
    AERROR DropClean() override { return SUCCESS; }
    AERROR Commit() override { return SUCCESS; }
    AERROR Discard() override { return SUCCESS; }

    std::vector<char> data;
    AERROR failWith = SUCCESS;
};

AERROR WriteAt(ICacheIO& io, const std::string& bytes, size_t offset, size_t size) {
    _WRITEDATA w;
    w.buffer = bytes.data() + offset;
    w.offset = static_cast<int64_t>(offset);
    w.size = size;
    const AERROR result = io.Write(&w);
    if (result == SUCCESS) {
        EXPECT_EQ(w.written, size);
    }
    return result;
}

struct ReadResult {
    AERROR code;
    std::string bytes;
    uint64_t size;  // the request's size after the call
};

ReadResult ReadAt(ICacheIO& io, int64_t offset, uint64_t size) {
    std::string out(size, '\0');
    _READDATA r;
    r.buffer = &out[0];
    r.offset = offset;
    r.size = size;
    const AERROR code = io.Read(&r);
    out.resize(code == SUCCESS ? static_cast<size_t>(r.read) : 0);
    return {code, out, r.size};
}

// Hang guard for work that may block: a pipe that never gives up would
// otherwise stall the whole run, so it ends the process with a message.
template <typename T>
T Await(std::future<T>& pending, const char* what) {
    if (pending.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
        fprintf(stderr, "%s did not return\n", what);
        std::abort();
    }
    return pending.get();
}

// Starts a read on another thread.
std::future<ReadResult> ReadAsync(ICacheIO& io, int64_t offset, uint64_t size) {
    return std::async(std::launch::async, [&io, offset, size] { return ReadAt(io, offset, size); });
}

// Gives a reader just started the chance to reach its wait before the handle
// is closed; the expected outcome is the same if it has not.
void LetItBlock() {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
}

TEST(EvCacheTest, DeliversBytesInOrderUpToTheTotalAndEndsWithTheHandle) {
    auto handle = std::make_shared<_FS_HANDLE>();
    const auto bytes = RandomBytes(150, 4);
    EvCache empty(handle, 0);
    auto first = ReadAsync(empty, 0, 10);  // nothing to wait for
    EXPECT_EQ(Await(first, "end of an empty pipe").code, SUCCESS);
    EvCache pipe(handle, 100);
    ASSERT_EQ(WriteAt(pipe, bytes, 0, 60), SUCCESS);
    ASSERT_EQ(WriteAt(pipe, bytes, 60, 90), SUCCESS);
    EXPECT_EQ(ReadAt(pipe, 0, 50).bytes, bytes.substr(0, 50));
    EXPECT_EQ(ReadAt(pipe, 100, 10).code, FILE_READ_FAILED);  // no seeking
    EXPECT_EQ(ReadAt(pipe, 0, 10).code, FILE_READ_FAILED);
    // The rest up to the total, though more was written; then the end.
    EXPECT_EQ(ReadAt(pipe, 50, 1000).bytes, bytes.substr(50, 50));
    const ReadResult end = ReadAt(pipe, 100, 10);
    EXPECT_EQ(end.code, SUCCESS);
    EXPECT_EQ(end.bytes, "");

    EvCache waiting(handle, 100);
    auto blocked = ReadAsync(waiting, 0, 10);
    LetItBlock();
    handle->state = HANDLE_STATE_CLOSED;
    EXPECT_EQ(Await(blocked, "a read on a closed handle").code, FAILED);
    ASSERT_EQ(WriteAt(waiting, bytes, 0, 10), SUCCESS);
    EXPECT_EQ(ReadAt(waiting, 0, 10).code, FAILED);  // closed before the read
}

TEST(FileCacheTest, ReadsAnywhereBelowWhatWasFilledAndTargetFailuresBecomePipeFailures) {
    auto handle = std::make_shared<_FS_HANDLE>();
    auto target = std::make_shared<MemoryTarget>();
    const auto bytes = RandomBytes(8192, 7);
    FileCache cache(handle, 8192, target);
    ASSERT_EQ(WriteAt(cache, bytes, 0, 4096), SUCCESS);
    const ReadResult cut = ReadAt(cache, 1024, 8192);
    EXPECT_EQ(cut.size, 3072u);
    EXPECT_EQ(cut.bytes, bytes.substr(1024, 3072));
    EXPECT_EQ(handle->fetchMark, 4096);
    EXPECT_EQ(ReadAt(cache, 0, 16).bytes, bytes.substr(0, 16));  // backwards is fine
    target->failWith = FILE_NOT_FOUND;
    EXPECT_EQ(ReadAt(cache, 0, 10).code, FILE_READ_FAILED);
    EXPECT_EQ(WriteAt(cache, bytes, 4096, 4096), FILE_WRITE_FAILED);
    // The failed write filled nothing: a read there still waits, until close.
    target->failWith = SUCCESS;
    auto blocked = ReadAsync(cache, 4096, 10);
    LetItBlock();
    ASSERT_EQ(WriteAt(cache, bytes, 4096, 4096), SUCCESS);
    EXPECT_EQ(Await(blocked, "a read of data written later").bytes, bytes.substr(4096, 10));
    EXPECT_EQ(ReadAt(cache, 8000, 500).bytes, bytes.substr(8000, 192));
    EXPECT_EQ(ReadAt(cache, 8192, 10).bytes, "");
    auto otherHandle = std::make_shared<_FS_HANDLE>();
    FileCache waiting(otherHandle, 100, target);
    auto stuck = ReadAsync(waiting, 0, 10);
    LetItBlock();
    otherHandle->state = HANDLE_STATE_CLOSED;
    EXPECT_EQ(Await(stuck, "a read on a closed handle").code, FAILED);
    handle->state = HANDLE_STATE_CLOSED;
    EXPECT_EQ(ReadAt(cache, 0, 10).code, FAILED);
}

// --- Both pipes under a producer and a consumer -----------------------------

// The producer keeps at most about 1 MiB ahead of the handle's fetch mark, as
// a fetcher that tops the pipe up would; the consumer reads in random sizes.
void StreamThrough(ICacheIO& pipe, _FS_HANDLE& handle, const std::string& bytes) {
    std::thread producer([&] {
        std::mt19937 random(9);
        for (size_t at = 0; at < bytes.size() && !handle.IsClosing();) {
            if (static_cast<int64_t>(at) - handle.fetchMark >= (1 << 20)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const size_t chunk = std::min<size_t>(bytes.size() - at, 1 + random() % 70000);
            ASSERT_EQ(WriteAt(pipe, bytes, at, chunk), SUCCESS);
            at += chunk;
        }
    });
    std::vector<int64_t> marks;
    auto consumer = std::async(std::launch::async, [&] {
        std::mt19937 random(10);
        std::string received;
        while (true) {
            const ReadResult r = ReadAt(pipe, received.size(), 1 + random() % 50000);
            if (r.code != SUCCESS || r.bytes.empty()) return received;
            received += r.bytes;
            marks.push_back(handle.fetchMark);
        }
    });
    const std::string received = Await(consumer, "the stream");
    handle.state = HANDLE_STATE_CLOSED;  // frees a producer left waiting
    producer.join();
    EXPECT_TRUE(received == bytes);
    ASSERT_FALSE(marks.empty());
    EXPECT_TRUE(std::is_sorted(marks.begin(), marks.end()));
    EXPECT_GT(marks.back(), 1 << 20);
    EXPECT_LT(marks.back(), static_cast<int64_t>(bytes.size()));
}

TEST(PipeStreamTest, BothPipesCarryEightMiBIntact) {
    auto evHandle = std::make_shared<_FS_HANDLE>();
    const auto bytes = RandomBytes(8 << 20, 11);
    EvCache ev(evHandle, static_cast<long long>(bytes.size()));
    StreamThrough(ev, *evHandle, bytes);
    auto fileHandle = std::make_shared<_FS_HANDLE>();
    FileCache file(fileHandle, static_cast<long long>(bytes.size()),
                   std::make_shared<MemoryTarget>());
    StreamThrough(file, *fileHandle, bytes);
}

}  // namespace
