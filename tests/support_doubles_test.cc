// Checks the in-memory protocol and cache service that the other tests build
// on: the behaviour those tests rely on without looking.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/memory_cache.h"
#include "support/memory_protocol.h"

namespace {

using Op = MemoryProtocol::Op;
using Ranges = std::vector<std::pair<long long, long long>>;

// An upload source over a string, handing out at most `chunk` bytes a read;
// from offset `failAt` on it fails with `failCode`.
class StringSource : public ICacheIO {
  public:
    StringSource(std::string data, std::size_t chunk) : data_(std::move(data)), chunk_(chunk) {}

    AERROR Read(_READDATA* request) override {
        if (onRead) {
            onRead();
        }
        if (request->offset >= failAt) {
            return failCode;
        }
        const std::size_t offset = static_cast<std::size_t>(request->offset);
        const std::size_t n = offset >= data_.size()
                                  ? 0
                                  : std::min({chunk_, static_cast<std::size_t>(request->size),
                                              data_.size() - offset});
        std::copy_n(data_.data() + offset, n, static_cast<char*>(request->buffer));
        request->read = static_cast<int64_t>(n);
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA*) override { return NOT_SUPPORTED; }

    std::function<void()> onRead;
    int64_t failAt = INT64_MAX;
    AERROR failCode = FILE_READ_FAILED;

  private:
    std::string data_;
    std::size_t chunk_;
};

// Collects a download; `afterPiece` runs after each piece is taken.
class Received : public IFetchCallback {
  public:
    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        offsets.push_back(offset);
        bytes.append(data, static_cast<std::size_t>(size));
        *written = size;
        if (afterPiece) {
            afterPiece();
        }
        return SUCCESS;
    }
    std::vector<long long> offsets;
    std::string bytes;
    std::function<void()> afterPiece;
};

// A remote file for the cache: serves bytes of a string and records each ask.
class StringFetch final : public IFetch {
  public:
    explicit StringFetch(std::string data) : data_(std::move(data)) {}

    AERROR Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* callback) override {
        calls.emplace_back(offset, size);
        handles.push_back(handle.get());
        if (failWith != SUCCESS) {
            return failWith;
        }
        if (beforeData) {
            beforeData();
        }
        if (offset >= static_cast<long long>(data_.size())) {
            return SUCCESS;
        }
        const long n = static_cast<long>(std::min<long long>(size, data_.size() - offset));
        long written = 0;
        return callback->FetchWrite(offset, data_.data() + offset, n, &written);
    }

    Ranges calls;
    std::vector<_FS_HANDLE*> handles;
    AERROR failWith = SUCCESS;
    std::function<void()> beforeData;

  private:
    std::string data_;
};

void RecordProgress(unsigned long long done, unsigned long long total, double, void* context) {
    static_cast<std::vector<std::pair<unsigned long long, unsigned long long>>*>(context)
        ->emplace_back(done, total);
}

AERROR Upload(MemoryProtocol& remote, const std::string& parentKey, ICacheIO* source,
              _FS_FILE_V2* record) {
    return remote.UploadItem(parentKey.c_str(), std::make_shared<_FS_HANDLE>(), source, record,
                             nullptr, nullptr);
}

// ---- MemoryProtocol ----

TEST(MemoryProtocolTest, UploadCreatesAndOverwritesWithoutEverShowingPartialFiles) {
    MemoryProtocol remote;
    const std::string docs = remote.AddFolder("/docs");

    // Creating: the file appears only once every byte has arrived. The check
    // runs inside the source's reads, so it also proves the protocol's lock
    // is free while it reads.
    StringSource source("hello world", 4);
    source.onRead = [&] { EXPECT_FALSE(remote.Exists("/docs/new.txt")); };
    std::vector<std::pair<unsigned long long, unsigned long long>> progress;
    _TRANSFERPROGRESS report{RecordProgress, &progress};
    _FS_FILE_V2 created;
    created.name = "new.txt";
    created.size = 11;
    ASSERT_EQ(SUCCESS, remote.UploadItem(docs.c_str(), std::make_shared<_FS_HANDLE>(), &source,
                                         &created, &report, nullptr));
    std::string contents;
    ASSERT_TRUE(remote.GetContents("/docs/new.txt", &contents));
    EXPECT_EQ("hello world", contents);
    EXPECT_EQ(remote.KeyOf("/docs/new.txt"), created.key);
    EXPECT_EQ(11, created.size);
    EXPECT_EQ(FILE_ATTRIBUTE_FILE, created.attributes);
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(std::make_pair(11ULL, 11ULL), progress.back());

    // A source that breaks halfway, or ends early, leaves the stored file alone.
    StringSource broken("HELLO WORLD", 4);
    broken.failAt = 4;
    _FS_FILE_V2 overwrite;
    overwrite.key = created.key;
    overwrite.size = 11;
    EXPECT_EQ(FILE_READ_FAILED, Upload(remote, docs, &broken, &overwrite));
    StringSource tooShort("abc", 64);
    overwrite.size = 10;
    EXPECT_EQ(FILE_READ_FAILED, Upload(remote, docs, &tooShort, &overwrite));
    remote.GetContents("/docs/new.txt", &contents);
    EXPECT_EQ("hello world", contents);

    // Overwriting by key keeps the key; so does uploading a new file over a
    // same-name one.
    StringSource shorter("bye", 64);
    overwrite.size = 3;
    ASSERT_EQ(SUCCESS, Upload(remote, docs, &shorter, &overwrite));
    EXPECT_EQ(created.key, overwrite.key);
    EXPECT_EQ(3, overwrite.size);
    StringSource again("xy", 64);
    _FS_FILE_V2 sameName;
    sameName.name = "new.txt";
    sameName.size = 2;
    ASSERT_EQ(SUCCESS, Upload(remote, docs, &again, &sameName));
    EXPECT_EQ(created.key, sameName.key);
    remote.GetContents("/docs/new.txt", &contents);
    EXPECT_EQ("xy", contents);
    EXPECT_EQ(std::vector<std::string>{"new.txt"}, remote.ListNames("/docs"));

    // A folder of that name is never replaced.
    remote.AddFolder("/docs/sub");
    _FS_FILE_V2 onFolder;
    onFolder.name = "sub";
    EXPECT_EQ(ALREADY_EXISTS, Upload(remote, docs, nullptr, &onFolder));
}

TEST(MemoryProtocolTest, RenamedAndMovedFoldersKeepTheirChildrenReachable) {
    MemoryProtocol remote;
    remote.AddFile("/a/b/c.txt", "data");
    const std::string child = remote.KeyOf("/a/b/c.txt");
    const std::string a = remote.KeyOf("/a");

    _FS_FILE_V2 renamed;
    renamed.name = "z";
    ASSERT_EQ(SUCCESS, remote.RenameItem(a.c_str(), remote.RootKey().c_str(), &renamed, nullptr));
    EXPECT_EQ(a, renamed.key);
    EXPECT_EQ("z", renamed.name);
    EXPECT_EQ(FILE_ATTRIBUTE_FOLDER, renamed.attributes);
    EXPECT_FALSE(remote.Exists("/a"));
    EXPECT_EQ(child, remote.KeyOf("/z/b/c.txt"));
    _FS_FILE_V2 item;
    ASSERT_EQ(SUCCESS, remote.GetItem(child.c_str(), &item, nullptr));
    EXPECT_EQ("c.txt", item.name);
    Received received;
    ASSERT_EQ(SUCCESS, remote.Download(child.c_str(), 0, 4, nullptr, &received, nullptr));
    EXPECT_EQ("data", received.bytes);

    const std::string other = remote.AddFolder("/other");
    const std::string b = remote.KeyOf("/z/b");
    _FS_FILE_V2 moved;
    ASSERT_EQ(SUCCESS, remote.MoveFolder(b.c_str(), other.c_str(), &moved, nullptr));
    EXPECT_EQ("b", moved.name);
    EXPECT_EQ("/other/b/c.txt", remote.PathOf(child));

    // Refusals that catch a confused caller.
    remote.AddFolder("/z/b");
    const std::string secondB = remote.KeyOf("/z/b");
    EXPECT_EQ(ALREADY_EXISTS, remote.MoveFolder(secondB.c_str(), other.c_str(), &moved, nullptr));
    EXPECT_EQ(INVALID_PARAMETER, remote.MoveFolder(other.c_str(), b.c_str(), &moved, nullptr));
    EXPECT_EQ(INVALID_PARAMETER, remote.MoveItem(b.c_str(), other.c_str(), &moved, nullptr));
    _FS_FILE_V2 wrongParent;
    wrongParent.name = "x.txt";
    EXPECT_EQ(INVALID_PARAMETER,
              remote.RenameItem(child.c_str(), other.c_str(), &wrongParent, nullptr));
    remote.AddFile("/other/b/d.txt", "");
    _FS_FILE_V2 taken;
    taken.name = "d.txt";
    EXPECT_EQ(ALREADY_EXISTS, remote.RenameItem(child.c_str(), b.c_str(), &taken, nullptr));
    EXPECT_EQ("/other/b/c.txt", remote.PathOf(child));
}

TEST(MemoryProtocolTest, FailuresHandOutCookiesAndReleasesAreAccounted) {
    MemoryProtocol remote;
    const std::string key = remote.AddFile("/f.txt", "x");
    _FS_FILE_V2 record;

    remote.FailNext(Op::GetItem, SOCK_TIMEOUT, 2);
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(SOCK_TIMEOUT, remote.GetItem(key.c_str(), &record, &first));
    EXPECT_EQ(SOCK_TIMEOUT, remote.GetItem(key.c_str(), &record, &second));
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    void* third = &record;  // a stale value: a success must clear the slot
    EXPECT_EQ(SUCCESS, remote.GetItem(key.c_str(), &record, &third));
    EXPECT_EQ(nullptr, third);
    EXPECT_EQ(3, remote.Calls(Op::GetItem));

    char text[128];
    ASSERT_EQ(SUCCESS, remote.DescribeCookie(first, text, sizeof(text)));
    EXPECT_NE(std::string::npos, std::string(text).find("SOCK_TIMEOUT"));

    EXPECT_EQ(2, remote.CookiesOutstanding());
    remote.ReleaseCookie(first);
    remote.ReleaseCookie(second);
    EXPECT_EQ(2, remote.CookiesReleased());
    EXPECT_EQ(0, remote.CookiesOutstanding());
    remote.ReleaseCookie(first);    // twice
    remote.ReleaseCookie(&record);  // never handed out
    EXPECT_EQ(2, remote.BadCookieReleases());

    // Genuine failures carry a cookie too; successes only when asked to.
    void* cookie = nullptr;
    EXPECT_EQ(FILE_NOT_FOUND, remote.GetItem("k999", &record, &cookie));
    EXPECT_NE(nullptr, cookie);
    remote.ReleaseCookie(cookie);
    remote.SetCookieOnSuccess(true);
    EXPECT_EQ(SUCCESS, remote.GetItem(key.c_str(), &record, &cookie));
    EXPECT_NE(nullptr, cookie);
    remote.ReleaseCookie(cookie);

    remote.FailAlways(Op::Download, SOCK_NETWORK_ERROR);
    Received received;
    EXPECT_EQ(SOCK_NETWORK_ERROR, remote.Download(key.c_str(), 0, 1, nullptr, &received, nullptr));
    EXPECT_EQ(SOCK_NETWORK_ERROR, remote.Download(key.c_str(), 0, 1, nullptr, &received, nullptr));
    remote.ClearFailures();
    EXPECT_EQ(SUCCESS, remote.Download(key.c_str(), 0, 1, nullptr, &received, nullptr));
    EXPECT_EQ("x", received.bytes);
    EXPECT_EQ(4, remote.CookiesCreated());
    EXPECT_EQ(0, remote.CookiesOutstanding());
}

TEST(MemoryProtocolTest, DownloadSendsRangesInPiecesAndStopsWhenTheHandleCloses) {
    MemoryProtocol remote;
    const std::string key = remote.AddFile("/f", "0123456789abcdef");
    remote.SetPieceSize(4);
    auto handle = std::make_shared<_FS_HANDLE>();

    Received tail;
    ASSERT_EQ(SUCCESS, remote.Download(key.c_str(), 2, 100, handle, &tail, nullptr));
    EXPECT_EQ("23456789abcdef", tail.bytes);
    EXPECT_EQ((std::vector<long long>{2, 6, 10, 14}), tail.offsets);
    EXPECT_EQ((Ranges{{2, 100}}), remote.DownloadedRanges());

    Received cut;
    cut.afterPiece = [&] { handle->state = HANDLE_STATE_CLOSED; };
    EXPECT_EQ(READ_CANCELED, remote.Download(key.c_str(), 0, 16, handle, &cut, nullptr));
    EXPECT_EQ("0123", cut.bytes);

    Received none;
    remote.AddFolder("/dir");
    EXPECT_EQ(FAILED, remote.Download(remote.KeyOf("/dir").c_str(), 0, 1, nullptr, &none, nullptr));
    remote.Remove("/f");
    EXPECT_EQ(FILE_NOT_FOUND, remote.Download(key.c_str(), 0, 1, nullptr, &none, nullptr));
    EXPECT_TRUE(none.bytes.empty());
}

TEST(MemoryProtocolTest, PausedDownloadEndsWhenItsHandleStartsClosing) {
    MemoryProtocol remote;
    const std::string key = remote.AddFile("/f", "data");
    auto handle = std::make_shared<_FS_HANDLE>();
    remote.Pause(Op::Download);
    Received received;
    AERROR result = SUCCESS;
    std::thread reader(
        [&] { result = remote.Download(key.c_str(), 0, 4, handle, &received, nullptr); });
    ASSERT_TRUE(remote.WaitForPaused(Op::Download, 1));
    handle->state = HANDLE_STATE_CLOSED;
    reader.join();
    EXPECT_EQ(READ_CANCELED, result);
    EXPECT_TRUE(received.bytes.empty());

    // Other calls carry on once resumed.
    remote.Resume(Op::Download);
    EXPECT_EQ(SUCCESS, remote.Download(key.c_str(), 0, 4, nullptr, &received, nullptr));
    EXPECT_EQ("data", received.bytes);
}

class RecordedChanges : public IFileChanges {
  public:
    AERROR Added(const char* key, _FS_FILE_V2* record) override {
        log.push_back(std::string("added ") + key + " " + record->name);
        return SUCCESS;
    }
    AERROR Removed(const char* key, const char* name) override {
        log.push_back(std::string("removed ") + key + " " + name);
        return SUCCESS;
    }
    AERROR Changed(const char* key, _FS_FILE_V2* record) override {
        log.push_back(std::string("changed ") + key + " " + std::to_string(record->size));
        return SUCCESS;
    }
    AERROR Refresh(const char* key) override {
        log.push_back(std::string("refresh ") + key);
        return SUCCESS;
    }
    std::vector<std::string> log;
};

TEST(MemoryProtocolTest, RemoteChangesAreReportedOnceAndInOrder) {
    MemoryProtocol remote;
    const std::string folder = remote.AddFolder("/d");
    ASSERT_TRUE(remote.RemoteAdd("/d/new.txt", "1"));
    const std::string file = remote.KeyOf("/d/new.txt");
    ASSERT_TRUE(remote.RemoteChange("/d/new.txt", "22"));
    ASSERT_TRUE(remote.RemoteRemove("/d/new.txt"));
    ASSERT_TRUE(remote.QueueRefresh("/d"));
    EXPECT_FALSE(remote.RemoteAdd("/missing/x", ""));

    RecordedChanges changes;
    ASSERT_EQ(SUCCESS, remote.GetChanges(&changes, nullptr));
    EXPECT_EQ((std::vector<std::string>{"added " + folder + " new.txt", "changed " + file + " 2",
                                        "removed " + folder + " new.txt", "refresh " + folder}),
              changes.log);
    changes.log.clear();
    ASSERT_EQ(SUCCESS, remote.GetChanges(&changes, nullptr));
    EXPECT_TRUE(changes.log.empty());
    EXPECT_FALSE(remote.Exists("/d/new.txt"));
}

// ---- MemoryCacheService ----

const char kRemote[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345";  // 32 bytes: 8 blocks of 4

std::pair<AERROR, std::string> ReadAt(ICacheObj* object, long long offset, uint64_t size,
                                      IFetch* fetch, std::shared_ptr<_FS_HANDLE> handle) {
    std::string buffer(size, '?');
    _READDATA request;
    request.buffer = buffer.data();
    request.offset = offset;
    request.size = size;
    request.handle = std::move(handle);
    request.fetch = fetch;
    const AERROR rc = object->Read(&request);
    buffer.resize(rc == SUCCESS ? static_cast<std::size_t>(request.read) : 0);
    return {rc, buffer};
}

AERROR WriteAt(ICacheObj* object, long long offset, const std::string& data, IFetch* fetch) {
    _WRITEDATA request;
    request.buffer = data.data();
    request.offset = offset;
    request.size = data.size();
    request.handle = std::make_shared<_FS_HANDLE>();
    request.fetch = fetch;
    return object->Write(&request);
}

TEST(MemoryCacheTest, ReadsFetchOnlyMissingBlocksInCoalescedRuns) {
    MemoryCacheService cache(4);
    StringFetch remote(kRemote);
    auto handle = std::make_shared<_FS_HANDLE>();
    auto object = cache.Open("\\f", 'r', 32, &remote);
    ASSERT_TRUE(object);

    EXPECT_EQ(std::make_pair(SUCCESS, std::string("IJKL")),
              ReadAt(object.get(), 8, 4, &remote, handle));
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 20, "wxyz", nullptr));
    remote.calls.clear();
    cache.ResetCounters();

    EXPECT_EQ(std::make_pair(SUCCESS, std::string("ABCDEFGHIJKLMNOPQRSTwxyzYZ012345")),
              ReadAt(object.get(), 0, 32, &remote, handle));
    EXPECT_EQ((Ranges{{0, 8}, {12, 8}, {24, 8}}), remote.calls);
    EXPECT_EQ(remote.calls, cache.FetchedRanges());
    EXPECT_EQ(24, cache.FetchedBytes());
    for (_FS_HANDLE* asked : remote.handles) {
        EXPECT_EQ(handle.get(), asked);
    }

    remote.calls.clear();
    EXPECT_EQ(std::make_pair(SUCCESS, std::string("45")),
              ReadAt(object.get(), 30, 100, &remote, handle));
    EXPECT_EQ(std::make_pair(SUCCESS, std::string()),
              ReadAt(object.get(), 32, 10, &remote, handle));
    EXPECT_TRUE(remote.calls.empty());

    // A failed fetch fails the read with its code and caches nothing; without
    // a fetcher absent blocks read as zeros.
    auto other = cache.Open("\\g", 'r', 8, &remote);
    remote.failWith = SOCK_TIMEOUT;
    EXPECT_EQ(SOCK_TIMEOUT, ReadAt(other.get(), 0, 8, &remote, handle).first);
    EXPECT_EQ(MemoryCacheObject::kAbsent, cache.Object("\\g")->StateOf(0));
    EXPECT_EQ(std::make_pair(SUCCESS, std::string(8, '\0')),
              ReadAt(other.get(), 0, 8, nullptr, handle));
}

TEST(MemoryCacheTest, WrittenBlocksSurviveDropCleanAndFetchesThatRaceThem) {
    MemoryCacheService cache(4);
    StringFetch remote(kRemote);
    auto handle = std::make_shared<_FS_HANDLE>();
    auto object = cache.Open("\\f", 'w', 32, &remote);
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 4, "1234", &remote));
    ASSERT_EQ(SUCCESS, ReadAt(object.get(), 0, 32, &remote, handle).first);

    ASSERT_EQ(SUCCESS, object->DropClean());
    EXPECT_EQ(4, cache.WrittenBytes("\\f"));
    remote.calls.clear();
    EXPECT_EQ(std::make_pair(SUCCESS, std::string("ABCD1234IJKLMNOPQRSTUVWXYZ012345")),
              ReadAt(object.get(), 0, 32, &remote, handle));
    EXPECT_EQ((Ranges{{0, 4}, {8, 24}}), remote.calls);

    // A write that lands while its block is being fetched wins; the fetch
    // calls back into the cache, which must not be locked meanwhile.
    ASSERT_EQ(SUCCESS, object->DropClean());
    remote.beforeData = [&] { EXPECT_EQ(SUCCESS, WriteAt(object.get(), 8, "zzzz", nullptr)); };
    EXPECT_EQ(std::make_pair(SUCCESS, std::string("zzzzMNOP")),
              ReadAt(object.get(), 8, 8, &remote, handle));
    remote.beforeData = nullptr;
}

TEST(MemoryCacheTest, PartialWritesFetchTheirEdgeBlocksFirst) {
    MemoryCacheService cache(4);
    StringFetch remote(kRemote);
    auto object = cache.Open("\\f", 'w', 32, &remote);

    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 5, "xy", &remote));
    EXPECT_EQ((Ranges{{4, 4}}), remote.calls);
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 27, "pq", &remote));  // two edges, one run
    EXPECT_EQ((Ranges{{4, 4}, {24, 8}}), remote.calls);
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 13, "Q", nullptr));  // nothing to fetch with

    const std::string contents = cache.Contents("\\f");
    EXPECT_EQ("ExyH", contents.substr(4, 4));
    EXPECT_EQ("YZ0pq345", contents.substr(24, 8));
    EXPECT_EQ(std::string("\0Q\0\0", 4), contents.substr(12, 4));
    EXPECT_EQ(16, cache.WrittenBytes("\\f"));  // blocks 1, 3, 6 and 7

    // Growing by a write: the bytes between the old end and the write are zeros.
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 38, "!", &remote));
    EXPECT_EQ(39, cache.Size("\\f"));
    EXPECT_EQ(std::string("\0\0\0\0\0\0!", 7), cache.Contents("\\f").substr(32));
    EXPECT_EQ(2u, remote.calls.size());
}

TEST(MemoryCacheTest, FillUnwrittenFetchesOnlyWhatIsMissingAndCommitDiscardForget) {
    MemoryCacheService cache(4);
    StringFetch remote(kRemote);
    auto handle = std::make_shared<_FS_HANDLE>();
    auto object = cache.Open("\\f", 'w', 12, &remote);
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 0, "abcd", nullptr));
    ASSERT_EQ(SUCCESS, object->SetSize(20));  // blocks 3 and 4 are written zeros

    ASSERT_EQ(SUCCESS, object->FillUnwritten(handle));
    EXPECT_EQ((Ranges{{4, 8}}), remote.calls);
    EXPECT_EQ(std::string("abcdEFGHIJKL") + std::string(8, '\0'), cache.Contents("\\f"));
    unsigned long long used = 0;
    unsigned long long unsent = 0;
    ASSERT_EQ(SUCCESS, cache.GetUsage(&used, &unsent));
    EXPECT_EQ(20u, used);
    EXPECT_EQ(12u, unsent);

    ASSERT_EQ(SUCCESS, object->Commit());
    EXPECT_EQ(0, cache.WrittenBytes("\\f"));
    ASSERT_EQ(SUCCESS, WriteAt(object.get(), 0, "zz", nullptr));
    ASSERT_EQ(SUCCESS, object->Discard());
    remote.calls.clear();
    EXPECT_EQ(std::make_pair(SUCCESS, std::string("ABCDEFGHIJKLMNOPQRST")),
              ReadAt(object.get(), 0, 20, &remote, handle));
    EXPECT_EQ((Ranges{{0, 20}}), remote.calls);
}

TEST(MemoryCacheTest, EntriesOutliveCloseAndMoveWithRekey) {
    MemoryCacheService cache(4);
    auto a = cache.Open("\\a", 'w', 0, nullptr);
    ASSERT_EQ(SUCCESS, WriteAt(a.get(), 0, "data", nullptr));
    cache.Close("\\a");
    EXPECT_EQ(0, cache.OpenCount("\\a"));
    EXPECT_EQ("data", cache.Contents("\\a"));
    EXPECT_EQ(a, cache.Open("\\a", 'r', 4, nullptr));

    auto b = cache.Open("\\b", 'w', 0, nullptr);
    ASSERT_EQ(SUCCESS, WriteAt(b.get(), 0, "old", nullptr));
    ASSERT_EQ(SUCCESS, cache.Rekey("\\a", "\\b", "extra"));
    EXPECT_FALSE(cache.HasEntry("\\a"));
    EXPECT_EQ("data", cache.Contents("\\b"));
    EXPECT_EQ(a, cache.Object("\\b"));
    EXPECT_EQ("extra", cache.LastRekeyExtra());
    EXPECT_EQ(FILE_NOT_FOUND, cache.Rekey("\\a", "\\c", ""));
    EXPECT_EQ(1, cache.Rekeys());

    EXPECT_EQ(SHARING_VIOLATION, cache.Remove("\\b"));
    cache.Close("\\b");
    cache.Close("\\nothing");
    EXPECT_EQ(1, cache.BadCloses());
    EXPECT_EQ(SUCCESS, cache.Remove("\\b"));
    EXPECT_EQ(std::vector<std::string>{}, cache.Keys());
    EXPECT_FALSE(cache.Open("\\c", 'x', 0, nullptr));
}

}  // namespace
