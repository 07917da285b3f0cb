// A node's data: reads through the cache or straight from the remote,
// writes and their upload state, the streaming pipe, truncation.
#include <atomic>
#include <thread>

#include "data/async_job.h"
#include "data/stream_pipe.h"
#include "support/volume_fixture.h"

namespace {

using Op = TestRemote::Op;

class NodeDataTest : public VolumeFixture {};

TEST_F(NodeDataTest, ReadsGoThroughTheCacheOrElseStraightToTheRemote) {
    const std::string content = RandomBytes(200000, 1);
    protocol_->AddFile("/data.bin", content);
    protocol_->AddFile("/other.bin", content);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    auto node = Node("/data.bin");
    ASSERT_TRUE(node);
    EXPECT_EQ(ReadNode(node, 10000, 5000), content.substr(10000, 5000));
    EXPECT_EQ(ReadNode(node, 10000, 5000), content.substr(10000, 5000));
    EXPECT_EQ(ReadNode(node, 199990, 4096), content.substr(199990));  // cut to the size
    EXPECT_EQ(ReadNode(node, 200000, 4096), "");
    EXPECT_EQ(protocol_->Calls(Op::Download), 2);

    // A cache that fails falls back to one direct download, reported once.
    protocol_->ResetCounters();
    protocol_->FailNext(Op::Download, SOCK_TIMEOUT);
    EXPECT_EQ(ReadNode(node, 50000, 131072), content.substr(50000, 131072));
    EXPECT_EQ(protocol_->Calls(Op::Download), 2);  // the cache's fill, then the fallback
    ASSERT_EQ(events_->Errors().size(), 1u);
    EXPECT_EQ(events_->Errors()[0].kind, FSEVENT_READ_FAILED);

    // Without a cache object reads go straight to the remote, in one range.
    protocol_->ResetCounters();
    cache_.SetOpenFails(true);
    auto other = Node("/other.bin");
    EXPECT_EQ(ReadNode(other, 0, 70000), content.substr(0, 70000));
    EXPECT_EQ(protocol_->Calls(Op::Download), 1);
}

TEST_F(NodeDataTest, AnOfflineOnlyFileNeverDownloads) {
    protocol_->AddFolder("/dir");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
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
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    auto node = Node("/doc.txt");

    auto finder = OpenNode(node, 'w', "finder");
    EXPECT_FALSE(node->IsModified());  // the file manager opening for write
    EXPECT_EQ(node->GetUploadState(), UploadState::Opened);
    node->Handles().CloseHandle(finder.get());
    auto other = OpenNode(node, 'w', "Finder");
    EXPECT_TRUE(node->IsModified());  // any other spelling counts as a writer
    node->Handles().CloseHandle(other.get());

    auto handle = OpenNode(node, 'w', "vim");
    unsigned long written = 0;
    ASSERT_EQ(node->WriteFile(handle.get(), "HELLO", 5, &written, 0, nullptr), SUCCESS);
    EXPECT_EQ(written, 5u);
    EXPECT_EQ(node->GetUploadState(), UploadState::Written);
    ASSERT_EQ(node->WriteFile(handle.get(), "!!", 2, &written, 11, nullptr), SUCCESS);
    EXPECT_EQ(node->Info()->size, 13);
    node->Handles().CloseHandle(handle.get());
    // Writing part of a block the cache lacked fetched the rest of it first.
    EXPECT_EQ(ReadNode(node, 0, 100), "HELLO world!!");
}

TEST_F(NodeDataTest, TruncatingToZeroForgetsTheRemoteContent) {
    protocol_->AddFile("/big.bin", RandomBytes(50000, 2));
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
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

// A remote that keeps archive marks, or answers that it keeps none.
class ArchivingProtocol : public TestRemote {
  public:
    AERROR SetArchive(const char* key, bool archived, void**) override {
        marks.push_back(std::string(key) + (archived ? " set" : " cleared"));
        return answer;
    }
    std::vector<std::string> marks;
    AERROR answer = NOT_SUPPORTED;
};

TEST_F(NodeDataTest, AStoredUploadGetsTheNodeTimeInTheServerZoneAndItsArchiveMark) {
    // The server writes its local wall-clock times, in a zone east of UTC.
    struct SeoulTime {
        const std::string saved = getenv("TZ") != nullptr ? getenv("TZ") : "UTC";
        SeoulTime() { Use("Asia/Seoul"); }
        ~SeoulTime() { Use(saved.c_str()); }
        static void Use(const char* zone) {
            setenv("TZ", zone, 1);
            tzset();
        }
    } zone;
    auto protocol = std::make_shared<ArchivingProtocol>();
    protocol_ = protocol;
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_SET_TIME |
                               PROTOCOL_CAP_SERVER_TIME_OFFSET);
    protocol_->AddFolder("/dir");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    auto dir = Node("/dir");
    auto remoteTime = [&](const std::shared_ptr<File>& node) {
        _FS_FILE_V2 stored;
        void* cookie = nullptr;
        EXPECT_EQ(protocol_->GetItem(node->RemoteKey().c_str(), &stored, &cookie), SUCCESS);
        return stored.modifyTime;
    };
    for (const bool archived : {true, false}) {
        _FS_FILE_V2 record;
        record.name = archived ? "kept.txt" : "plain.txt";
        record.attributes = FILE_ATTRIBUTE_FILE | (archived ? FILE_ATTRIBUTE_ARCHIVED : 0);
        record.modifyTime = "2024-01-05T16:08:09.000Z";
        auto node = dir->AddChild(&record, true);
        auto handle = OpenNode(node, 'w');
        unsigned long written = 0;
        ASSERT_EQ(node->WriteFile(handle.get(), "data", 4, &written, 0, nullptr), SUCCESS);
        // A remote without archive marks does not fail the upload.
        ASSERT_EQ(node->UploadNow(handle, nullptr, nullptr), SUCCESS);
        node->Handles().CloseHandle(handle.get());
        // The server shows the time the volume shows, by this text.
        EXPECT_EQ(remoteTime(node), node->Info()->modifyTime);
        ASSERT_EQ(node->SetFileTime(0, 0, 1700000100), SUCCESS);
        EXPECT_EQ(remoteTime(node), node->Info()->modifyTime);
    }
    EXPECT_EQ(protocol->marks,
              std::vector<std::string>{Node("/dir/kept.txt")->RemoteKey() + " set"});
    EXPECT_EQ(log_.Count("[ASYNCJOB  ] File was archived, set archive bit now.", LL_INFO), 1);
}

// The pipe of a streaming upload holds a bounded amount: a writer waits,
// keeping the kernel's request alive, until the upload has taken enough; a
// write out of order is refused; and giving the stream up ends every wait.
TEST(StreamPipeTest, BoundsWhatItHoldsAndEndsEveryWaitWhenAbandoned) {
    auto owner = std::shared_ptr<_FS_HANDLE_EXT>(FileHandles::NewHandle());
    auto job = std::make_shared<_ASYNCJOB>();
    StreamPipe pipe(owner, job);
    const std::string full(StreamPipe::kMaxBuffered + 1, 'a');
    auto push = [&](const std::string& bytes, long long offset,
                    const std::function<void()>& keepAlive = nullptr) {
        _WRITEDATA request;
        request.buffer = bytes.data();
        request.offset = offset;
        request.size = bytes.size();
        return pipe.Push(request, keepAlive);
    };
    auto read = [&](long long offset, size_t size, AERROR* result) {
        std::string bytes(size, '\0');
        _READDATA request;
        request.buffer = bytes.data();
        request.offset = offset;
        request.size = size;
        *result = pipe.Read(&request);
        bytes.resize(request.read);
        return bytes;
    };
    ASSERT_EQ(push(full, 0), SUCCESS);
    std::atomic<int> waits{0};
    std::atomic<bool> pushed{false};
    std::thread writer([&] {
        EXPECT_EQ(push("b", static_cast<long long>(full.size()), [&] { ++waits; }), SUCCESS);
        pushed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(pushed.load());
    EXPECT_GT(waits.load(), 0);
    AERROR result;
    EXPECT_EQ(read(0, 1 << 20, &result), std::string(1 << 20, 'a'));
    writer.join();
    EXPECT_TRUE(pushed.load());
    EXPECT_EQ(push("c", 5, nullptr), FAILED);  // the writer seeked

    // Drained, the reader waits for more; giving up ends the wait.
    const long long rest = static_cast<long long>(full.size()) + 1 - (1 << 20);
    EXPECT_EQ(read(1 << 20, rest, &result).size(), static_cast<size_t>(rest));
    std::thread reader([&] {
        AERROR waited;
        read(static_cast<long long>(full.size()) + 1, 10, &waited);
        EXPECT_EQ(waited, UPLOAD_CANCELED);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    pipe.Abandon();
    reader.join();
    EXPECT_EQ(push("d", static_cast<long long>(full.size()) + 1), UPLOAD_CANCELED);
}

}  // namespace
