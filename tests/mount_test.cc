// Mounting and unmounting volumes through the kernel, and the mount
// manager's refusals.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <system_error>

#include "api/mount_manager.h"
#include "libfilesystem/libfilesystem.h"
#include "services/job_queue.h"
#include "support/memory_protocol.h"
#include "support/test_env.h"

namespace {

// Counts the drive-removed notifications a file system sends when it is
// finalised.
class CountingNotifier : public INotifier {
  public:
    int ChangeNotify(NOTIFYEVENT event, unsigned int, const void*, const void*) override {
        if (event == NE_DRIVE_REMOVE) ++driveRemoved;
        return 0;
    }
    std::atomic<int> driveRemoved{0};
};

// A protocol that starts throwing once told to.
class ThrowingProtocol : public MemoryProtocol {
  public:
    unsigned int GetCapabilities() override {
        if (throwing) throw std::runtime_error("protocol exploded");
        return MemoryProtocol::GetCapabilities();
    }
    std::atomic<bool> throwing{false};
};

class MountTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FS_BindLogger(FS_LOGGER_MAIN, &log_);
        FS_BindAsyncQ(&queue_);
        ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
        point_ = dir_ / "mnt";
    }
    void TearDown() override {
        if (FS_GetFileSystemImpl(point_.c_str()) != nullptr) {
            Unmount(point_.c_str(), true);
            WaitGone();
        }
        FS_UnbindAsyncQ();
        FS_UnbindLogger();
    }
    bool WaitGone() {
        return WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; });
    }
    // Mounts with one in-memory protocol holding a file.
    IFileSystem_V2* MountWithProtocol(MOUNTTYPE type = MT_DEFAULT) {
        IFileSystem_V2* fs = nullptr;
        if (Mount(point_.c_str(), "Test", type, &fs, nullptr, nullptr) != SUCCESS) return nullptr;
        protocol_ = std::make_shared<MemoryProtocol>();
        protocol_->AddFile("/hello.txt", "hello");
        fs->AddProtocol(protocol_, "memory");
        return fs;
    }

    RecordingLog log_;
    // The host's queue; idle threads retire soon, so thread counts settle.
    JobQueue queue_{JobQueue::kDefaultMaxThreads, std::chrono::milliseconds(100)};
    TempDir dir_;
    std::string point_;
    std::shared_ptr<MemoryProtocol> protocol_;
};

#define REQUIRE_KERNEL_MOUNT()                            \
    do {                                                  \
        const std::string why = KernelMountUnavailable(); \
        if (!why.empty()) GTEST_SKIP() << why;            \
    } while (0)

TEST_F(MountTest, VolumeComesUpServesOtherProcessesAndGoesDownOnEitherUnmount) {
    REQUIRE_KERNEL_MOUNT();
    for (const bool fromOutside : {false, true}) {
        CountingNotifier notifier;
        IFileSystem_V2* fs = MountWithProtocol();
        ASSERT_NE(fs, nullptr);
        fs->SetNotifier(&notifier);
        std::weak_ptr<MemoryProtocol> protocol = protocol_;
        protocol_.reset();
        EXPECT_TRUE(IsMounted(point_));
        EXPECT_EQ(FS_GetFileSystemImpl(point_.c_str()), fs);
        EXPECT_EQ(RunProgram({"stat", point_}), 0);
        EXPECT_TRUE(log_.Has("[FILESYSTEM] [" + point_ + ":stat] GetAttr : /", LL_DEBUG));
        if (fromOutside) {
            ASSERT_EQ(RunProgram({"fusermount", "-u", point_}), 0);
        } else {
            ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
        }
        ASSERT_TRUE(WaitGone());
        EXPECT_FALSE(IsMounted(point_));
        EXPECT_EQ(notifier.driveRemoved.load(), 1);  // Finalize ran once
        EXPECT_TRUE(protocol.expired());             // Destroy dropped the protocols
        EXPECT_TRUE(WaitUntil([&] { return log_.Has(point_ + " unmounted"); }));
        // The mount point is removed.
        EXPECT_TRUE(WaitUntil([&] { return access(point_.c_str(), F_OK) != 0; }));
        log_.Clear();
    }
}

TEST_F(MountTest, WithoutAFinalisingThreadTheMountThreadTearsTheVolumeDown) {
    REQUIRE_KERNEL_MOUNT();
    ASSERT_NE(MountWithProtocol(), nullptr);
    const auto starter = MountManager::startThread;
    MountManager::startThread = [](std::function<void()>) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    };
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    const bool gone = WaitGone();
    MountManager::startThread = starter;
    ASSERT_TRUE(gone);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": thread constructor failed", LL_ERROR));
    EXPECT_TRUE(log_.Has(point_ + " unmounted"));
    EXPECT_FALSE(IsMounted(point_));
}

TEST_F(MountTest, RefusesASecondMountAndOneDuringUnmountingLeavingTheFirstWorking) {
    REQUIRE_KERNEL_MOUNT();
    ASSERT_NE(MountWithProtocol(), nullptr);
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
    EXPECT_TRUE(WaitGone());
}

TEST_F(MountTest, ExceptionsInACallbackAreLoggedAndAnsweredWithEIO) {
    REQUIRE_KERNEL_MOUNT();
    IFileSystem_V2* fs = nullptr;
    ASSERT_EQ(Mount(point_.c_str(), "Test", MT_DEFAULT, &fs, nullptr, nullptr), SUCCESS);
    auto protocol = std::make_shared<ThrowingProtocol>();
    ASSERT_EQ(fs->AddProtocol(protocol, "memory"), SUCCESS);
    protocol->throwing = true;
    EXPECT_NE(RunProgram({"stat", point_ + "/missing"}), 0);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] FUSE_getattr exception : protocol exploded", LL_CRITICAL));
    protocol->throwing = false;
}

TEST_F(MountTest, RepeatedMountsLeakNoThreadFileDescriptorOrMount) {
    REQUIRE_KERNEL_MOUNT();
    // One cycle first, so that lazily created process-wide state exists.
    ASSERT_NE(MountWithProtocol(), nullptr);
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    ASSERT_TRUE(WaitGone());
    queue_.Drain();
    ASSERT_TRUE(WaitUntil([&] { return queue_.ThreadCount() == 0; }));
    const int threads = CountThreads();
    const int fds = CountOpenFds();

    for (int cycle = 0; cycle < 50; ++cycle) {
        ASSERT_NE(MountWithProtocol(), nullptr) << "cycle " << cycle;
        ASSERT_EQ(RunProgram({"stat", point_ + "/hello.txt"}), 0);
        ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
        ASSERT_TRUE(WaitGone()) << "cycle " << cycle;
    }
    queue_.Drain();
    // Finalising threads end on their own after the mount is gone.
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }))
        << CountThreads() << " threads, " << threads << " before";
    EXPECT_EQ(CountOpenFds(), fds);
    EXPECT_FALSE(IsMounted(point_));
}

}  // namespace
