// The working volume through the kernel: copies, edits, renames and deletes
// made with the ordinary tools reach the remote as they would a local disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include "libfilesystem/libfilesystem.h"
#include "support/memory_cache.h"
#include "support/memory_protocol.h"
#include "support/test_env.h"
#include "support/thread_queue.h"
#include "support/volume_fixture.h"

namespace {

using Op = MemoryProtocol::Op;

std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (auto& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

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
        protocol_ = std::make_shared<MemoryProtocol>();
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
        ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
        mounted_ = true;
    }
    void Down(bool force = false) {
        ASSERT_TRUE(WaitUntil([&] { return Unmount(point_.c_str(), force) == SUCCESS; }));
        ASSERT_TRUE(WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; }));
        mounted_ = false;
    }
    // Waits until every upload has ended.
    bool Settled() {
        return WaitUntil([&] { return fs_->CountUploadings() == 0; }, std::chrono::seconds(60));
    }
    std::string At(const std::string& path) const { return point_ + path; }
    // Waits until the remote holds `expected` at `path`: the kernel releases
    // a file after close() returns, so its upload starts a moment later.
    ::testing::AssertionResult RemoteBecomes(const std::string& path, const std::string& expected) {
        if (WaitUntil([&] { return Remote(path) == expected; }, std::chrono::seconds(60))) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << path << " holds \"" << Remote(path).substr(0, 64) << "\"";
    }
    std::string Remote(const std::string& path) const {
        std::string contents;
        return protocol_->GetContents(path, &contents) ? contents : std::string("<missing>");
    }
    int Sh(const std::string& command) { return Shell(command); }

    RecordingLog log_;
    ThreadQueue queue_;
    MemoryCacheService cache_{65536};
    TempDir dir_;
    std::string point_;
    IFileSystem_V2* fs_ = nullptr;
    bool mounted_ = false;
    std::shared_ptr<MemoryProtocol> protocol_;
    std::shared_ptr<RecordingEvents> events_;
};

TEST_F(VolumeKernelTest, CopiedFilesReachTheRemoteIntactAndReadBackFromAFreshMount) {
    Up();
    const std::vector<std::pair<std::string, size_t>> files = {
        {"empty.bin", 0}, {"one.bin", 1}, {"mib.bin", (1 << 20) + 1}, {"big.bin", 64u << 20}};
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string source = dir_ / files[i].first;
        ASSERT_TRUE(WriteFile(source, RandomBytes(files[i].second, static_cast<unsigned>(i))));
        ASSERT_EQ(RunProgram({"cp", source, At("/")}), 0);
    }
    for (const auto& [name, size] : files) {
        const std::string local = ReadFile(dir_ / name);
        EXPECT_EQ(local.size(), size);
        EXPECT_TRUE(RemoteBecomes("/" + name, local));
    }
    Down();

    // A fresh mount with an empty cache reads everything from the remote.
    MemoryCacheService freshCache(65536);
    FS_BindCache(&freshCache);
    Up();
    for (const auto& [name, size] : files) {
        EXPECT_EQ(RunProgram({"cmp", dir_ / name, At("/" + name)}), 0) << name;
    }
    Down();
    FS_BindCache(&cache_);
}

TEST_F(VolumeKernelTest, EditsRenamesAndDeletesLeaveTheRemoteAsADiskWould) {
    protocol_->AddFile("/middle.txt", "0123456789");
    Up();
    ASSERT_EQ(Sh("echo first > " + At("/f.txt")), 0);
    ASSERT_EQ(Sh("echo second >> " + At("/f.txt")), 0);
    EXPECT_TRUE(RemoteBecomes("/f.txt", "first\nsecond\n"));

    ASSERT_EQ(RunProgram({"truncate", "-s", "3", At("/f.txt")}), 0);
    EXPECT_TRUE(RemoteBecomes("/f.txt", "fir"));
    ASSERT_EQ(RunProgram({"truncate", "-s", "6", At("/f.txt")}), 0);
    EXPECT_TRUE(RemoteBecomes("/f.txt", std::string("fir\0\0\0", 6)));

    ASSERT_EQ(
        Sh("printf XY | dd of=" + At("/middle.txt") + " bs=1 seek=4 conv=notrunc status=none"), 0);
    EXPECT_TRUE(RemoteBecomes("/middle.txt", "0123XY6789"));

    ASSERT_EQ(RunProgram({"mkdir", "-p", At("/a/b/c")}), 0);
    EXPECT_TRUE(protocol_->IsFolder("/a/b/c"));
    ASSERT_EQ(Sh("echo x > " + At("/a/b/c/x.txt")), 0);
    ASSERT_EQ(RunProgram({"mv", At("/f.txt"), At("/g.txt")}), 0);
    ASSERT_EQ(RunProgram({"mv", At("/g.txt"), At("/a/b/g.txt")}), 0);
    ASSERT_EQ(RunProgram({"mv", At("/a/b"), At("/moved")}), 0);
    EXPECT_TRUE(RemoteBecomes("/moved/g.txt", std::string("fir\0\0\0", 6)));
    EXPECT_TRUE(RemoteBecomes("/moved/c/x.txt", "x\n"));
    EXPECT_FALSE(protocol_->Exists("/a/b"));
    EXPECT_FALSE(protocol_->Exists("/f.txt"));

    ASSERT_EQ(RunProgram({"mv", At("/moved/g.txt"), At("/moved/G.TXT")}), 0);
    EXPECT_TRUE(protocol_->Exists("/moved/G.TXT"));
    std::string listing;
    RunProgram({"ls", At("/moved")}, &listing);
    EXPECT_NE(listing.find("G.TXT"), std::string::npos);

    // rmdir of a folder that holds files refuses and deletes nothing.
    EXPECT_NE(RunProgram({"rmdir", At("/moved")}), 0);
    EXPECT_TRUE(protocol_->Exists("/moved/c/x.txt"));
    ASSERT_EQ(RunProgram({"mkdir", At("/empty")}), 0);
    EXPECT_EQ(RunProgram({"rmdir", At("/empty")}), 0);
    EXPECT_FALSE(protocol_->Exists("/empty"));
    ASSERT_EQ(RunProgram({"rm", At("/middle.txt")}), 0);
    EXPECT_FALSE(protocol_->Exists("/middle.txt"));
    ASSERT_EQ(RunProgram({"rm", "-r", At("/moved")}), 0);
    EXPECT_FALSE(protocol_->Exists("/moved"));
    EXPECT_TRUE(protocol_->Exists("/a"));
}

TEST_F(VolumeKernelTest, RenamesFollowRenameTwoAndRefusalsKeepTheirErrno) {
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_REPORTS_CHANGES);
    protocol_->AddFile("/m/a/b/c/x.txt", "hi");
    protocol_->AddFile("/full/keep.txt", "keep");
    protocol_->AddFolder("/empty");
    protocol_->AddFolder("/src/dir");
    protocol_->AddFile("/src/file", "f");
    Up();
    auto Rename = [&](const std::string& from, const std::string& to) {
        return rename(At(from).c_str(), At(to).c_str()) == 0 ? 0 : errno;
    };
    // A folder moved, then read at once.
    ASSERT_EQ(RunProgram({"ls", "-R", At("/m")}), 0);
    ASSERT_EQ(Rename("/m/a/b", "/m/b2"), 0);
    EXPECT_EQ(ReadFile(At("/m/b2/c/x.txt")), "hi");
    // The destination is the final name; what rename(2) refuses is untouched.
    EXPECT_EQ(Rename("/src/dir", "/full"), ENOTEMPTY);
    EXPECT_TRUE(protocol_->Exists("/full/keep.txt"));
    EXPECT_EQ(Rename("/src/file", "/empty"), EISDIR);
    EXPECT_EQ(Rename("/src/dir", "/src/file"), ENOTDIR);
    EXPECT_EQ(Rename("/src/dir", "/empty"), 0);
    EXPECT_TRUE(protocol_->IsFolder("/empty"));
    EXPECT_FALSE(protocol_->Exists("/src/dir"));
    EXPECT_FALSE(protocol_->Exists("/empty/dir"));
    // What the volume cannot store is not permitted, not an I/O error.
    EXPECT_EQ(mkdir((At("/") + std::string(256, 'n')).c_str(), 0755) == 0 ? 0 : errno,
              ENAMETOOLONG);
    EXPECT_EQ(mkfifo(At("/fifo").c_str(), 0644) == 0 ? 0 : errno, EPERM);
    EXPECT_EQ(chown(At("/src/file").c_str(), getuid() + 1, getgid()) == 0 ? 0 : errno, EPERM);
}

TEST_F(VolumeKernelTest, SaveByRenameLeavesOneFileWithTheNewContent) {
    protocol_->AddFile("/doc.txt", "old content");
    Up();
    ASSERT_EQ(Sh("printf 'new content' > " + At("/.doc.txt.swp") + " && mv " + At("/.doc.txt.swp") +
                 " " + At("/doc.txt")),
              0);
    EXPECT_TRUE(RemoteBecomes("/doc.txt", "new content"));
    EXPECT_EQ(protocol_->ListNames("/"), (std::vector<std::string>{"doc.txt"}));
    EXPECT_EQ(ReadFile(At("/doc.txt")), "new content");
}

TEST_F(VolumeKernelTest, CloseWaitsForTheUploadOnlyWhenAsynchronousUploadIsOff) {
    protocol_->SetDelay(std::chrono::milliseconds(300));
    Up(MT_NO_ASYNC_UPLOAD);
    ASSERT_TRUE(WriteFile(At("/sync.txt"), "synchronous"));
    // FUSE releases a file after close() returns; the upload is done by then.
    EXPECT_TRUE(WaitUntil([&] { return Remote("/sync.txt") == "synchronous"; }));
    EXPECT_EQ(fs_->CountUploadings(), 0);
    Down();

    Up();
    protocol_->ResetCounters();
    ASSERT_TRUE(WriteFile(At("/async.txt"), "asynchronous"));
    // Released at once: the upload is queued for a background worker.
    EXPECT_TRUE(WaitUntil([&] { return fs_->CountUploadings() == 1; }));
    EXPECT_TRUE(RemoteBecomes("/async.txt", "asynchronous"));
    protocol_->SetDelay(std::chrono::milliseconds(0));
}

TEST_F(VolumeKernelTest, AFileDeletedWhileOpenIsNeverUploadedAgain) {
    Up();
    const int fd = open(At("/scratch.tmp").c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "temporary", 9), 9);
    ASSERT_EQ(unlink(At("/scratch.tmp").c_str()), 0);
    ASSERT_EQ(pwrite(fd, "still open", 10, 0), 10);
    close(fd);
    ASSERT_TRUE(WriteFile(At("/marker.txt"), "after"));
    ASSERT_TRUE(RemoteBecomes("/marker.txt", "after"));
    EXPECT_FALSE(protocol_->Exists("/scratch.tmp"));
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
    EXPECT_EQ(Remote("/shared.txt"), "AAAABB");
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
    ASSERT_TRUE(WaitUntil([&] { return Remote("/retry.txt") == "retried"; }));
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
    ASSERT_TRUE(WaitUntil([&] { return Remote("/later.txt") == "decided later"; }));
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
            EXPECT_EQ(Sh("ls " + At("/") + " " + At("/dst") + " >/dev/null"), 0);
        },
        [&] { protocol_->Resume(Op::UploadItem); }));
    EXPECT_EQ(renamed, 0);
    EXPECT_EQ(moved, 0);
    EXPECT_TRUE(RemoteBecomes("/dst/c.bin", data));
    ASSERT_TRUE(Settled());
    EXPECT_EQ(protocol_->ListNames("/"), (std::vector<std::string>{"dst"}));
    EXPECT_EQ(protocol_->ListNames("/dst"), (std::vector<std::string>{"c.bin"}));
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
    ASSERT_TRUE(WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; }));
    mounted_ = false;
    EXPECT_FALSE(IsMounted(point_));
    // The four workers returned to the queue.
    queue_.Drain();
    EXPECT_TRUE(WaitUntil([&] { return queue_.Running() == 0; }));
}

// One worker of the concurrency test: a shell loop that writes, reads,
// renames and deletes 16 files of one folder, from a fixed seed.
const char* const kWorkerScript = R"(
RANDOM=$1
cd "$2" || exit 1
end=$((SECONDS + $3))
while [ $SECONDS -lt $end ]; do
  name=f$((RANDOM % 16)).txt
  other=f$((RANDOM % 16)).txt
  case $((RANDOM % 4)) in
    0) { head -c $((RANDOM % 8192 + 1)) /dev/zero > "$name"; } 2>/dev/null ;;
    1) cat "$name" > /dev/null 2>&1 ;;
    2) mv -f "$name" "$other" 2>/dev/null ;;
    3) rm -f "$name" ;;
  esac
done
# Operations may fail when another worker renamed or deleted the file first;
# the worker only has to finish.
exit 0
)";

TEST_F(VolumeKernelTest, ManyProcessesWorkingInOneFolderNeverDeadlock) {
    Up();
    ASSERT_EQ(RunProgram({"mkdir", At("/work")}), 0);
    const char* seconds = getenv("LIBFS_STRESS_SECONDS");
    const std::string duration = seconds != nullptr ? seconds : "30";
    std::vector<pid_t> workers;
    for (int worker = 0; worker < 8; ++worker) {
        const std::string seed = std::to_string(1000 + worker);
        const std::string folder = At("/work");
        const char* argv[] = {"bash",       "-c",           kWorkerScript,    "worker",
                              seed.c_str(), folder.c_str(), duration.c_str(), nullptr};
        const pid_t pid = fork();
        if (pid == 0) {
            // Nothing of this process may leak into the worker: above all not
            // the FUSE device, which would keep the volume's connection alive.
            close_range(3, ~0U, 0);
            execvp("bash", const_cast<char* const*>(argv));
            _exit(127);
        }
        workers.push_back(pid);
    }
    for (pid_t pid : workers) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ASSERT_EQ(Unmount(point_.c_str(), false) == SUCCESS ||
                  WaitUntil([&] { return Unmount(point_.c_str(), false) == SUCCESS; }),
              true);
    EXPECT_TRUE(WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; },
                          std::chrono::seconds(5)));
    mounted_ = false;
}

}  // namespace
