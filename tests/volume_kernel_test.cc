// The volume through the kernel over a local-folder remote: mounting and
// unmounting and the mount manager's refusals, and what happens to uploads
// that are held, fail, or race with a rename, a delete or an unmount.
// Everyday copies and edits are the end-to-end and differential tests' part.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <system_error>
#include <thread>

#include "api/mount_manager.h"
#include "export/forget_gate.h"
#include "libfilesystem/libfilesystem.h"
#include "services/job_queue.h"
#include "support/disk_test_cache.h"
#include "support/test_env.h"
#include "support/volume_fixture.h"

namespace {

using Op = TestRemote::Op;

class VolumeKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = KernelMountUnavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        FS_BindLogger(FS_LOGGER_MAIN, &log_);
        FS_BindAsyncQ(&queue_);
        FS_BindCache(&cache_);
        ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
        point_ = dir_ / "mnt";
        protocol_ = std::make_shared<TestRemote>();
        events_ = std::make_shared<RecordingEvents>();
    }
    void TearDown() override {
        if (mounted_) Down(true);
        FS_UnbindCache();
        FS_UnbindAsyncQ();
        FS_UnbindLogger();
    }
    void Up(MOUNTTYPE type = MT_DEFAULT) {
        ASSERT_EQ(Mount(point_.c_str(), "Test", type, &fs_, nullptr, nullptr), SUCCESS);
        fs_->SetFSEvent(events_);
        ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
        mounted_ = true;
    }
    void Down(bool force = false) {
        ASSERT_TRUE(WaitUntil([&] { return Unmount(point_.c_str(), force) == SUCCESS; }));
        ASSERT_TRUE(Gone());
    }
    bool Gone() {
        mounted_ = false;
        return WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; });
    }
    // Waits until every upload has ended.
    bool Settled() {
        return WaitUntil([&] { return fs_->CountUploadings() == 0; }, std::chrono::seconds(60));
    }
    std::string At(const std::string& path) const { return point_ + path; }
    // Waits until the remote holds `expected` at `path`: the kernel releases
    // a file after close() returns, so its upload starts a moment later.
    ::testing::AssertionResult RemoteBecomes(const std::string& path, const std::string& expected) {
        if (WaitUntil([&] { return protocol_->Contents(path) == expected; },
                      std::chrono::seconds(60))) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << path << " holds \"" << protocol_->Contents(path).substr(0, 64) << "\"";
    }

    RecordingLog log_;
    // The host's queue; idle threads retire soon, so thread counts settle.
    JobQueue queue_{JobQueue::kDefaultMaxThreads, std::chrono::milliseconds(100)};
    DiskTestCache cache_{65536};
    TempDir dir_;
    std::string point_;
    IFileSystem_V2* fs_ = nullptr;
    bool mounted_ = false;
    std::shared_ptr<TestRemote> protocol_;
    std::shared_ptr<RecordingEvents> events_;
};

TEST_F(VolumeKernelTest, VolumeComesUpServesOtherProcessesAndGoesDownOnEitherUnmount) {
    for (const bool fromOutside : {false, true}) {
        RecordingNotifier notifier;
        Up();
        fs_->SetNotifier(&notifier);
        std::weak_ptr<TestRemote> protocol = protocol_;
        protocol_ = std::make_shared<TestRemote>();
        EXPECT_TRUE(IsMounted(point_));
        EXPECT_EQ(FS_GetFileSystemImpl(point_.c_str()), fs_);
        EXPECT_EQ(RunProgram({"stat", point_}), 0);
        EXPECT_TRUE(log_.Has("[FILESYSTEM] [" + point_ + ":stat] GetAttr : /", LL_DEBUG));
        if (fromOutside) {
            ASSERT_EQ(RunProgram({"fusermount", "-u", point_}), 0);
        } else {
            ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
        }
        ASSERT_TRUE(Gone());
        EXPECT_FALSE(IsMounted(point_));
        const auto events = notifier.Events();  // Finalize ran once
        EXPECT_EQ(std::count(events.begin(), events.end(), "NE_DRIVE_REMOVE"), 1);
        EXPECT_TRUE(protocol.expired());  // Destroy dropped the protocols
        EXPECT_TRUE(WaitUntil([&] { return log_.Has(point_ + " unmounted"); }));
        // The mount point is removed.
        EXPECT_TRUE(WaitUntil([&] { return access(point_.c_str(), F_OK) != 0; }));
        log_.Clear();
    }
}

TEST_F(VolumeKernelTest, WithoutAFinalisingThreadTheMountThreadTearsTheVolumeDown) {
    Up();
    const auto starter = MountManager::startThread;
    MountManager::startThread = [](std::function<void()>) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    };
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    const bool gone = Gone();
    MountManager::startThread = starter;
    ASSERT_TRUE(gone);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": thread constructor failed", LL_ERROR));
    EXPECT_TRUE(log_.Has(point_ + " unmounted"));
    EXPECT_FALSE(IsMounted(point_));
}

TEST_F(VolumeKernelTest, RefusesASecondMountAndOneDuringUnmountingLeavingTheFirstWorking) {
    protocol_->AddFile("/hello.txt", "hello");
    Up();
    IFileSystem_V2* second = nullptr;
    EXPECT_EQ(Mount(point_.c_str(), "Again", MT_DEFAULT, &second, nullptr, nullptr),
              FS_ALREADY_MOUNTED);
    EXPECT_TRUE(log_.Has(point_ + " already mounted", LL_WARNING));
    EXPECT_EQ(RunProgram({"stat", point_ + "/hello.txt"}), 0);

    // A process inside the volume keeps it busy: the unmount detaches it
    // lazily and the mount stays in the table until the process leaves.
    const pid_t holder = fork();
    if (holder == 0) {
        if (chdir(point_.c_str()) != 0) _exit(1);
        execlp("sleep", "sleep", "30", static_cast<char*>(nullptr));
        _exit(1);
    }
    ASSERT_TRUE(WaitUntil([&] {
        std::string cwd = ReadFile("/proc/" + std::to_string(holder) + "/cmdline");
        return cwd.rfind("sleep", 0) == 0;
    }));
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    EXPECT_EQ(Mount(point_.c_str(), "Again", MT_DEFAULT, &second, nullptr, nullptr),
              FS_ALREADY_MOUNTED);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_TRUE(Gone());
}

// A protocol that starts throwing once told to.
class ThrowingProtocol : public TestRemote {
  public:
    unsigned int GetCapabilities() override {
        if (throwing) throw std::runtime_error("protocol exploded");
        return TestRemote::GetCapabilities();
    }
    std::atomic<bool> throwing{false};
};

TEST_F(VolumeKernelTest, ExceptionsInACallbackAreLoggedAndAnsweredWithEIO) {
    auto protocol = std::make_shared<ThrowingProtocol>();
    protocol_ = protocol;
    Up();
    protocol->throwing = true;
    EXPECT_NE(RunProgram({"stat", point_ + "/missing"}), 0);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] FUSE_getattr exception : protocol exploded", LL_CRITICAL));
    protocol->throwing = false;
}

TEST_F(VolumeKernelTest, RepeatedMountsLeakNoThreadFileDescriptorOrMount) {
    protocol_->AddFile("/hello.txt", "hello");
    // One cycle first, so that lazily created process-wide state exists.
    Up();
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    ASSERT_TRUE(Gone());
    queue_.Drain();
    ASSERT_TRUE(WaitUntil([&] { return queue_.ThreadCount() == 0; }));
    const int threads = CountThreads();
    const int fds = CountOpenFds();

    for (int cycle = 0; cycle < 50; ++cycle) {
        Up();
        ASSERT_EQ(RunProgram({"stat", point_ + "/hello.txt"}), 0);
        ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
        ASSERT_TRUE(Gone()) << "cycle " << cycle;
    }
    queue_.Drain();
    // Finalising threads end on their own after the mount is gone.
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }))
        << CountThreads() << " threads, " << threads << " before";
    EXPECT_EQ(CountOpenFds(), fds);
    EXPECT_FALSE(IsMounted(point_));
}

TEST_F(VolumeKernelTest, CloseWaitsForTheUploadOnlyWhenAsynchronousUploadIsOff) {
    Up(MT_NO_ASYNC_UPLOAD);
    ASSERT_TRUE(WriteFile(At("/sync.txt"), "synchronous"));
    // FUSE releases a file after close() returns; the upload is done by then.
    EXPECT_TRUE(WaitUntil([&] { return protocol_->Contents("/sync.txt") == "synchronous"; }));
    EXPECT_EQ(fs_->CountUploadings(), 0);
    Down();

    Up();
    protocol_->Pause(Op::UploadItem);
    ASSERT_TRUE(WriteFile(At("/async.txt"), "asynchronous"));
    // Released at once: the upload is queued for a background worker.
    EXPECT_TRUE(WaitUntil([&] { return fs_->CountUploadings() == 1; }));
    protocol_->Resume(Op::UploadItem);
    EXPECT_TRUE(RemoteBecomes("/async.txt", "asynchronous"));
}

TEST_F(VolumeKernelTest, OfTwoWritersOnlyTheLastClosesAnUpload) {
    Up();
    const int first = open(At("/shared.txt").c_str(), O_WRONLY | O_CREAT, 0644);
    const int second = open(At("/shared.txt").c_str(), O_WRONLY);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    ASSERT_EQ(pwrite(first, "AAAA", 4, 0), 4);
    ASSERT_EQ(pwrite(second, "BB", 2, 4), 2);
    protocol_->ResetCounters();
    close(first);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(protocol_->Calls(Op::UploadItem), 0);
    close(second);
    ASSERT_TRUE(WaitUntil([&] { return protocol_->Calls(Op::UploadItem) == 1; }));
    ASSERT_TRUE(Settled());
    EXPECT_EQ(protocol_->Calls(Op::UploadItem), 1);
    EXPECT_EQ(protocol_->Contents("/shared.txt"), "AAAABB");
}

TEST_F(VolumeKernelTest, AFailedUploadIsPutToTheHostAndItsAnswerCarriedOut) {
    Up();
    // Cancel: the remote stays as it was.
    protocol_->AddFile("/keep.txt", "remote version");
    events_->Answer(UPLOAD_ANSWER_CANCEL);
    protocol_->FailNext(Op::UploadItem, SOCK_TIMEOUT);
    ASSERT_TRUE(WriteFile(At("/keep.txt"), "local version"));
    ASSERT_TRUE(WaitUntil([&] { return events_->Questions() == 1; }));
    EXPECT_TRUE(RemoteBecomes("/keep.txt", "remote version"));

    // Retry: it is uploaded once the remote takes it.
    events_->Answer(UPLOAD_ANSWER_RETRY);
    protocol_->FailNext(Op::UploadItem, SOCK_TIMEOUT, 2);
    ASSERT_TRUE(WriteFile(At("/retry.txt"), "retried"));
    ASSERT_TRUE(WaitUntil([&] { return protocol_->Contents("/retry.txt") == "retried"; }));
    EXPECT_EQ(events_->Questions(), 3);

    // Save: the data lands in the local file named by the host.
    const std::string saved = dir_ / "saved.txt";
    events_->Answer(UPLOAD_ANSWER_SAVE, saved);
    protocol_->FailNext(Op::UploadItem, SOCK_TIMEOUT);
    ASSERT_TRUE(WriteFile(At("/save.txt"), "saved locally"));
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(saved) == "saved locally"; }));
    // The volume still shows what was written, until an upload succeeds.
    EXPECT_EQ(ReadFile(At("/save.txt")), "saved locally");
    EXPECT_EQ(fs_->UploadCacheRetry("/save.txt"), SUCCESS);
    EXPECT_TRUE(RemoteBecomes("/save.txt", "saved locally"));

    // No answer: the data waits in the cache for the host.
    events_->Answer(0);
    protocol_->FailNext(Op::UploadItem, SOCK_TIMEOUT);
    ASSERT_TRUE(WriteFile(At("/later.txt"), "decided later"));
    ASSERT_TRUE(WaitUntil([&] { return events_->Questions() == 5; }));
    EXPECT_TRUE(RemoteBecomes("/later.txt", "<missing>"));
    EXPECT_EQ(fs_->UploadCacheSave("/later.txt", (dir_ / "later.txt").c_str()), SUCCESS);
    EXPECT_EQ(ReadFile(dir_ / "later.txt"), "decided later");
    EXPECT_EQ(fs_->UploadCacheRetry("/later.txt"), SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return protocol_->Contents("/later.txt") == "decided later"; }));
    EXPECT_EQ(fs_->UploadCacheRetry("/no-such.txt"), FILE_NOT_FOUND);
    EXPECT_EQ(fs_->UploadCacheCancel("/nothing.txt"), FILE_NOT_FOUND);
    EXPECT_EQ(fs_->UploadCacheSave("/nothing.txt", "/tmp/x"), FILE_NOT_FOUND);
}

// Runs `call` on a thread of its own; true when it returned within `limit`.
// The thread is joined once `unblock` has run, whatever happened.
bool ReturnsWithin(std::chrono::seconds limit, const std::function<void()>& call,
                   const std::function<void()>& unblock) {
    std::atomic<bool> done{false};
    std::thread caller([&] {
        call();
        done = true;
    });
    const bool inTime = WaitUntil([&] { return done.load(); }, limit);
    unblock();
    caller.join();
    return inTime;
}

TEST_F(VolumeKernelTest, RenamesDuringAnUploadReturnAtOnceAndTheDataFollows) {
    protocol_->AddFolder("/dst");
    protocol_->AddFile("/a.bin", "the older version");
    Up();
    const std::string data = RandomBytes(3 << 20, 5);
    protocol_->Pause(Op::UploadItem);
    ASSERT_TRUE(WriteFile(At("/a.bin"), data));
    ASSERT_TRUE(protocol_->WaitForPaused(Op::UploadItem, 1));
    // The upload is held: the renames and a listing still answer.
    int renamed = -1;
    int moved = -1;
    EXPECT_TRUE(ReturnsWithin(
        std::chrono::seconds(10),
        [&] {
            renamed = rename(At("/a.bin").c_str(), At("/b.bin").c_str());
            moved = rename(At("/b.bin").c_str(), At("/dst/c.bin").c_str());
            EXPECT_EQ(RunProgram({"ls", At("/"), At("/dst")}), 0);
        },
        [&] { protocol_->Resume(Op::UploadItem); }));
    EXPECT_EQ(renamed, 0);
    EXPECT_EQ(moved, 0);
    EXPECT_TRUE(RemoteBecomes("/dst/c.bin", data));
    ASSERT_TRUE(Settled());
    for (const char* left : {"/a.bin", "/b.bin", "/dst/a.bin", "/dst/b.bin"})
        EXPECT_FALSE(protocol_->Exists(left)) << left;
}

TEST_F(VolumeKernelTest, AnUploadQueuedWhileTheReleaseUploadsAnEmptyFileStillRuns) {
    Up();
    // An empty file is stored by its release itself; that upload is held.
    protocol_->Pause(Op::UploadItem);
    const int created = open(At("/f").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(created, 0);
    close(created);
    ASSERT_TRUE(protocol_->WaitForPaused(Op::UploadItem, 1));
    // A second writer's close queues its own upload meanwhile.
    ASSERT_TRUE(WriteFile(At("/f"), "written while the empty file was stored"));
    protocol_->Resume(Op::UploadItem);
    EXPECT_TRUE(RemoteBecomes("/f", "written while the empty file was stored"));
    EXPECT_TRUE(Settled());
}

TEST_F(VolumeKernelTest, ADeleteWhileTheHostDecidesAboutAFailedUploadIsNotForgotten) {
    Up();
    events_->Answer(UPLOAD_ANSWER_RETRY);
    protocol_->FailAlways(Op::UploadItem, SOCK_TIMEOUT);
    ASSERT_TRUE(WriteFile(At("/doomed.txt"), "never stored"));
    ASSERT_TRUE(WaitUntil([&] { return events_->Questions() >= 2; }));
    // The delete gives the upload up for good: no retry follows it.
    EXPECT_TRUE(ReturnsWithin(
        std::chrono::seconds(10), [&] { EXPECT_EQ(unlink(At("/doomed.txt").c_str()), 0); },
        [&] { protocol_->ClearFailures(); }));
    const int tries = protocol_->Calls(Op::UploadItem);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(protocol_->Calls(Op::UploadItem), tries);
    EXPECT_FALSE(protocol_->Exists("/doomed.txt"));
}

TEST_F(VolumeKernelTest, UnmountWaitsForUploadsUnlessForced) {
    Up();
    protocol_->Pause(Op::UploadItem);
    ASSERT_TRUE(WriteFile(At("/slow.txt"), "slow upload"));
    ASSERT_TRUE(protocol_->WaitForPaused(Op::UploadItem, 1));
    EXPECT_EQ(Unmount(point_.c_str(), false), FS_UNMOUNT_EXIST_UPLOADING);
    EXPECT_TRUE(IsMounted(point_));
    EXPECT_EQ(Unmount(point_.c_str(), true), SUCCESS);
    protocol_->Resume(Op::UploadItem);
    ASSERT_TRUE(Gone());
    EXPECT_FALSE(IsMounted(point_));
    // The four workers returned to the queue.
    queue_.Drain();
    EXPECT_TRUE(WaitUntil([&] { return queue_.RunningCount() == 0; }));
}

// FORGETs run only between requests, in arrival order, and no request starts
// while they run: libfuse frees path-locked nodes otherwise.
TEST(ForgetGateTest, ForgetsRunAloneAndInOrder) {
    std::mutex mutex;
    std::vector<std::string> ran;
    std::atomic<int> inRequest{0}, inForget{0};
    std::atomic<bool> release{false};
    ForgetGate gate([&](const char* data, size_t size) {
        EXPECT_EQ(inRequest.load(), 0);
        ++inForget;
        if (data[0] == 'c') std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::lock_guard<std::mutex> lock(mutex);
        ran.emplace_back(data, size);
        --inForget;
    });
    std::thread busy([&] {
        gate.Request([&] {
            ++inRequest;
            while (!release)
                std::this_thread::yield();
            --inRequest;
        });
    });
    ASSERT_TRUE(WaitUntil([&] { return inRequest.load() == 1; }));
    gate.Forget("a", 1);
    gate.Forget("b", 1);
    EXPECT_TRUE(ran.empty());
    release = true;
    busy.join();
    EXPECT_EQ(ran, (std::vector<std::string>{"a", "b"}));

    std::thread forgetting([&] { gate.Forget("c", 1); });
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return inForget.load() == 1 || ran.size() == 3;
    }));
    gate.Request([&] { EXPECT_EQ(inForget.load(), 0); });
    forgetting.join();
    EXPECT_EQ(ran.size(), 3u);
}

}  // namespace
