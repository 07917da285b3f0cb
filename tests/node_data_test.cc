// A node's data: reads through the cache or straight from the remote,
// writes and their upload state, streaming writes, truncation.
#include <atomic>
#include <thread>

#include "support/volume_fixture.h"

namespace {

using Op = MemoryProtocol::Op;

std::string Pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return bytes;
}

class NodeDataTest : public VolumeFixture {};

TEST_F(NodeDataTest, ReadsFetchOnlyWhatTheCacheLacks) {
    const std::string content = Pattern(100000);
    protocol_->AddFile("/data.bin", content);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/data.bin");
    ASSERT_TRUE(node);

    EXPECT_EQ(ReadNode(node, 10000, 5000), content.substr(10000, 5000));
    // Blocks of 4096 bytes: the read covered blocks 2 to 3.
    EXPECT_EQ(cache_.FetchedRanges(), (std::vector<std::pair<long long, long long>>{{8192, 8192}}));
    EXPECT_EQ(ReadNode(node, 10000, 5000), content.substr(10000, 5000));
    EXPECT_EQ(cache_.FetchCalls(), 1);
    // Past the end, a read is cut to the file size.
    EXPECT_EQ(ReadNode(node, 99990, 4096), content.substr(99990));
    EXPECT_EQ(ReadNode(node, 100000, 4096), "");
    EXPECT_EQ(cache_.FetchedRanges().back(), (std::pair<long long, long long>{98304, 1696}));
}

TEST_F(NodeDataTest, ACacheThatFailsFallsBackToOneDirectDownload) {
    const std::string content = Pattern(200000);
    protocol_->AddFile("/data.bin", content);
    protocol_->SetPieceSize(10000);  // the direct download comes in pieces
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/data.bin");
    protocol_->FailNext(Op::Download, SOCK_TIMEOUT);
    EXPECT_EQ(ReadNode(node, 50000, 131072), content.substr(50000, 131072));
    EXPECT_EQ(protocol_->Calls(Op::Download), 2);  // the cache's fill, then the fallback
    EXPECT_EQ(events_->Errors().size(), 1u);
    EXPECT_EQ(events_->Errors()[0].kind, FSEVENT_READ_FAILED);
}

TEST_F(NodeDataTest, WithoutACacheReadsGoStraightToTheRemote) {
    const std::string content = Pattern(70000);
    protocol_->AddFile("/data.bin", content);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    cache_.SetOpenFails(true);
    auto node = Node("/data.bin");
    EXPECT_EQ(ReadNode(node, 0, 70000), content);
    EXPECT_EQ(protocol_->DownloadedRanges(),
              (std::vector<std::pair<long long, long long>>{{0, 70000}}));
}

TEST_F(NodeDataTest, AnOfflineOnlyFileNeverDownloads) {
    protocol_->AddFolder("/dir");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto dir = Node("/dir");
    _FS_FILE_V2 record;
    record.name = ".DS_Store";
    record.key = "local-only";
    record.attributes = FILE_ATTRIBUTE_FILE | FILE_ATTRIBUTE_NO_DELETE;
    record.size = 100;
    auto node = dir->AddChild(&record, true);
    ASSERT_TRUE(node->IsOfflineOnly());
    cache_.SetOpenFails(true);
    AERROR result;
    EXPECT_EQ(ReadNode(node, 0, 100, &result), "");
    EXPECT_EQ(result, FILE_READ_FAILED);
    EXPECT_EQ(protocol_->Calls(Op::Download), 0);
}

TEST_F(NodeDataTest, WritesMarkTheNodeAndMoveItsUploadState) {
    protocol_->AddFile("/doc.txt", "hello world");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/doc.txt");

    auto finder = OpenNode(node, 'w', "finder");
    EXPECT_FALSE(node->IsModified());  // the file manager opening for write
    EXPECT_EQ(node->GetUploadState(), 1u);
    node->Handles().CloseHandle(finder.get());
    auto other = OpenNode(node, 'w', "Finder");
    EXPECT_TRUE(node->IsModified());  // any other spelling counts as a writer
    node->Handles().CloseHandle(other.get());

    auto handle = OpenNode(node, 'w', "vim");
    unsigned long written = 0;
    ASSERT_EQ(node->WriteFile(handle.get(), "HELLO", 5, &written, 0, nullptr), SUCCESS);
    EXPECT_EQ(written, 5u);
    EXPECT_EQ(node->GetUploadState(), 2u);
    // Writing part of a block the cache lacks fetches the rest of it first.
    EXPECT_EQ(cache_.Contents("\\doc.txt"), "HELLO world");
    ASSERT_EQ(node->WriteFile(handle.get(), "!!", 2, &written, 11, nullptr), SUCCESS);
    EXPECT_EQ(node->Info()->size, 13);
    node->Handles().CloseHandle(handle.get());
    EXPECT_EQ(ReadNode(node, 0, 100), "HELLO world!!");

    std::string buffer(4, '\0');
    EXPECT_EQ(
        node->WriteFile(reinterpret_cast<_FS_HANDLE_EXT*>(0x10), "x", 1, &written, 0, nullptr),
        INVALID_HANDLE);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] Invalid handle : Unknown handle on WriteFile"));
}

TEST_F(NodeDataTest, TruncatingToZeroForgetsTheRemoteContent) {
    protocol_->AddFile("/big.bin", Pattern(50000));
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/big.bin");
    auto handle = OpenNode(node, 'w');
    ASSERT_EQ(node->ftruncate("/big.bin", 0), SUCCESS);
    EXPECT_TRUE(node->Info()->key.empty());
    EXPECT_FALSE(node->RemoteKey().empty());  // the upload still overwrites the same item
    node->Handles().CloseHandle(handle.get());
    EXPECT_EQ(ReadNode(node, 0, 4096), "");
    EXPECT_EQ(protocol_->Calls(Op::Download), 0);

    // Growing an empty file gives zeros, never remote bytes.
    handle = OpenNode(node, 'w');
    ASSERT_EQ(node->SetEndOfFile(handle.get(), 10), SUCCESS);
    EXPECT_EQ(ReadNode(node, 0, 100), std::string(10, '\0'));
    EXPECT_EQ(protocol_->Calls(Op::Download), 0);
    auto reader = OpenNode(node, 'r');
    EXPECT_EQ(node->SetEndOfFile(reader.get(), 5), ACCESS_DENIED);
}

TEST_F(NodeDataTest, FetchStopsAtTheFetchableSize) {
    protocol_->AddFile("/f.bin", Pattern(1000));
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/f.bin");
    auto handle = OpenNode(node, 'r');
    class Sink : public IFetchCallback {
      public:
        AERROR FetchWrite(long long, const char*, long size, long* written) override {
            bytes += size;
            if (written != nullptr) *written = size;
            return SUCCESS;
        }
        long bytes = 0;
    } sink;
    EXPECT_EQ(node->Fetch(1000, 4096, handle, &sink), SUCCESS);
    EXPECT_EQ(protocol_->Calls(Op::Download), 0);
    EXPECT_EQ(node->Fetch(900, 4096, handle, &sink), SUCCESS);
    EXPECT_EQ(sink.bytes, 100);
    EXPECT_EQ(node->Fetch(0, 10, nullptr, &sink), FAILED);
    handle->state = HANDLE_STATE_CLOSED;
    EXPECT_EQ(node->Fetch(0, 10, handle, &sink), INVALID_HANDLE);
}

// Writes from a real-time writer go to the streaming upload's pipe.
class RecordingPipe : public ICacheIO {
  public:
    explicit RecordingPipe(std::shared_ptr<_FS_HANDLE_EXT> handle) : handle_(std::move(handle)) {}
    AERROR Read(_READDATA*) override { return FAILED; }
    AERROR Write(_WRITEDATA* request) override {
        std::lock_guard<std::mutex> lock(mutex_);
        offsets.push_back(request->offset);
        request->written = request->size;
        // The upload takes the bytes at once.
        handle_->consumed = request->offset + request->size;
        return SUCCESS;
    }
    std::mutex mutex_;
    std::vector<long long> offsets;

  private:
    std::shared_ptr<_FS_HANDLE_EXT> handle_;
};

class RealtimeFilter : public IFSFilter {
  public:
    bool IsOfflineOnly(const char*, const char*) override { return false; }
    bool IsRealtimeUploadProcess(const char* process) noexcept override {
        return std::string(process) == "recorder";
    }
};

class StreamingTest : public NodeDataTest {
  protected:
    void SetUp() override {
        features_ = FEATURE_ASYNC_UPLOAD | FEATURE_REALTIME_UPLOAD;
        NodeDataTest::SetUp();
        fs_->SetFSFilter(std::make_shared<RealtimeFilter>());
        protocol_->AddFile("/stream.bin", "");
        ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
        node_ = Node("/stream.bin");
        handle_ = OpenNode(node_, 'w', "recorder");
        ASSERT_EQ(node_->SetEndOfFile(handle_.get(), 8 * 1024), SUCCESS);
        // The stream runs: its first chunk, at offset 0, started it.
        pipe_ = std::make_shared<RecordingPipe>(handle_);
        node_->SetStreamingPipe(pipe_);
        node_->SetUploadState(3);
        handle_->writeOffset = 1024;
    }
    // Starts one writer thread per 1 KiB chunk, the last chunk first.
    std::vector<std::thread> StartWriters(int firstChunk, std::vector<AERROR>& results) {
        std::vector<std::thread> writers;
        static const std::string chunk(1024, 'z');
        for (int i = 7; i >= firstChunk; --i) {
            writers.emplace_back([this, i, &results] {
                unsigned long written = 0;
                results[i] = node_->WriteFile(handle_.get(), chunk.data(), 1024, &written,
                                              i * 1024LL, nullptr);
            });
        }
        return writers;
    }

    void TearDown() override {
        // The pipe holds the handle, which holds the node, which holds the pipe.
        if (node_) node_->SetStreamingPipe(nullptr);
        NodeDataTest::TearDown();
    }

    std::shared_ptr<File> node_;
    std::shared_ptr<_FS_HANDLE_EXT> handle_;
    std::shared_ptr<RecordingPipe> pipe_;
};

TEST_F(StreamingTest, WritesReachThePipeInOffsetOrder) {
    std::vector<AERROR> results(8, FAILED);
    auto writers = StartWriters(1, results);
    // The last byte moves the upload to state 4; it ends when it is done.
    ASSERT_TRUE(WaitUntil([&] { return node_->GetUploadState() == 4u; }));
    node_->SetUploadState(5);
    for (auto& writer : writers)
        writer.join();
    const std::vector<long long> inOrder = {1024, 2048, 3072, 4096, 5120, 6144, 7168};
    EXPECT_EQ(pipe_->offsets, inOrder);
    for (int i = 1; i < 8; ++i)
        EXPECT_EQ(results[i], SUCCESS);
}

TEST_F(StreamingTest, ClosingTheHandleEndsEveryWait) {
    handle_->writeOffset = 0;  // the chunk at 1024 waits for one at 0 that never comes
    std::vector<AERROR> results(8, FAILED);
    auto writers = StartWriters(1, results);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    handle_->state = HANDLE_STATE_CLOSED;
    for (auto& writer : writers)
        writer.join();
    for (int i = 1; i < 8; ++i)
        EXPECT_EQ(results[i], INVALID_HANDLE);
    EXPECT_TRUE(pipe_->offsets.empty());
}

TEST_F(StreamingTest, ASecondStreamMayNotRestartARunningOne) {
    auto second = OpenNode(node_, 'w', "recorder");
    unsigned long written = 0;
    EXPECT_EQ(node_->WriteFile(second.get(), "x", 1, &written, 0, nullptr), FAILED);
}

}  // namespace
