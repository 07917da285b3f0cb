// Mounting and unmounting volumes through the kernel, and the mount
// manager's refusals.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "api/mount_manager.h"
#include "export/export_service_fuse.h"
#include "export/notify_export_service.h"
#include "libfilesystem/libfilesystem.h"
#include "support/memory_protocol.h"
#include "support/test_env.h"
#include "support/thread_queue.h"

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
    ThreadQueue queue_;
    TempDir dir_;
    std::string point_;
    std::shared_ptr<MemoryProtocol> protocol_;
};

#define REQUIRE_KERNEL_MOUNT()                            \
    do {                                                  \
        const std::string why = KernelMountUnavailable(); \
        if (!why.empty()) GTEST_SKIP() << why;            \
    } while (0)

TEST_F(MountTest, VolumeComesUpServesOtherProcessesAndGoesDownOnUnmount) {
    REQUIRE_KERNEL_MOUNT();
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

    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    ASSERT_TRUE(WaitGone());
    EXPECT_FALSE(IsMounted(point_));
    EXPECT_EQ(notifier.driveRemoved.load(), 1);  // Finalize ran once
    EXPECT_TRUE(protocol.expired());             // Destroy dropped the protocols
    EXPECT_TRUE(WaitUntil([&] { return log_.Has(point_ + " unmounted"); }));
    EXPECT_NE(access(point_.c_str(), F_OK), 0);  // the mount point is removed
}

TEST_F(MountTest, UnmountFromOutsideTearsTheMountDownTheSameWay) {
    REQUIRE_KERNEL_MOUNT();
    CountingNotifier notifier;
    IFileSystem_V2* fs = MountWithProtocol();
    ASSERT_NE(fs, nullptr);
    fs->SetNotifier(&notifier);
    ASSERT_TRUE(IsMounted(point_));

    ASSERT_EQ(RunProgram({"fusermount", "-u", point_}), 0);
    ASSERT_TRUE(WaitGone());
    EXPECT_FALSE(IsMounted(point_));
    EXPECT_EQ(notifier.driveRemoved.load(), 1);
    EXPECT_TRUE(WaitUntil([&] { return access(point_.c_str(), F_OK) != 0; }));
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

TEST_F(MountTest, MountTypeBitsGiveFeaturesAndLogLines) {
    REQUIRE_KERNEL_MOUNT();
    IFileSystem_V2* fs = MountWithProtocol(MT_NO_ASYNC_UPLOAD | MT_REALTIME_UPLOAD);
    ASSERT_NE(fs, nullptr);
    EXPECT_EQ(fs->GetFeature(), FEATURE_REALTIME_UPLOAD);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": Async Upload Off", LL_INFO));
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": Realtime Upload On", LL_INFO));
    ASSERT_EQ(Unmount(point_.c_str(), false), SUCCESS);
    ASSERT_TRUE(WaitGone());

    fs = MountWithProtocol(MT_READ_ONLY);
    ASSERT_NE(fs, nullptr);
    EXPECT_EQ(RunProgram({"stat", point_ + "/hello.txt"}), 0);
    EXPECT_EQ(fs->GetFeature(), FEATURE_ASYNC_UPLOAD);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": Async Upload On", LL_INFO));
    EXPECT_TRUE(log_.Has("[FILESYSTEM] " + point_ + ": Realtime Upload Off", LL_INFO));
    std::string mounts;
    RunProgram({"grep", point_, "/proc/mounts"}, &mounts);
    EXPECT_NE(mounts.find(" ro,"), std::string::npos) << mounts;
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
    ASSERT_TRUE(WaitUntil([&] { return queue_.Running() == 0; }));
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

TEST(MountManagerTest, RefusesUnknownServicesAndReportsFailedMounts) {
    RecordingLog log;
    FS_BindLogger(FS_LOGGER_MAIN, &log);
    ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
    TempDir dir;
    const std::string point = dir / "mnt";
    IFileSystem_V2* fs = nullptr;
    EXPECT_EQ(MountManager::GetInstance().Mount(point.c_str(), "Vol", MT_DEFAULT, &fs, nullptr,
                                                nullptr, EXPORT_SERVICE_NONE),
              NOT_SUPPORTED);
    EXPECT_EQ(MountManager::GetInstance().Mount(point.c_str(), "Vol", MT_DEFAULT, &fs, nullptr,
                                                nullptr, static_cast<EXPORT_SERVICE_TYPE>(77)),
              NOT_SUPPORTED);
    EXPECT_EQ(MountManager::GetInstance().Mount(point.c_str(), "Vol", MT_DEFAULT, &fs, nullptr,
                                                nullptr, EXPORT_SERVICE_RPC),
              FS_MOUNT_ERROR);
    EXPECT_TRUE(log.Has("[FILESYSTEM] Mount failed : 8(" + point + ", Vol)", LL_ERROR));
    EXPECT_TRUE(log.Has("[FILESYSTEM] Skarvo filesystem installed", LL_INFO));
    EXPECT_EQ(FS_GetFileSystemImpl(point.c_str()), nullptr);
    // A broken configuration text refuses the mount before anything is made.
    EXPECT_EQ(Mount(point.c_str(), "Vol", MT_DEFAULT, &fs, nullptr, "{broken"), JSON_PARSE_FAILED);
    FS_UnbindLogger();
}

TEST(ProcessNameTest, NamesAreLowerCasedAndGoneProcessesAreTheirPid) {
    TempDir dir;
    const std::string finder = dir / "Finder";
    ASSERT_EQ(symlink("/bin/sleep", finder.c_str()), 0);
    const pid_t child = fork();
    if (child == 0) {
        execl(finder.c_str(), "Finder", "30", static_cast<char*>(nullptr));
        _exit(1);
    }
    ASSERT_TRUE(WaitUntil([&] { return ExportServiceFUSE::GetProcessName(child) == "finder"; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    // A pid that no process holds.
    EXPECT_EQ(ExportServiceFUSE::GetProcessName(4194303), "4194303");
}

TEST(ExportServiceTest, ResetTimeoutIsCountedAndEventNamesMatchWholeValues) {
    ExportServiceFUSE service;
    service.ResetTimeout(60000);
    service.ResetTimeout(60000);
    EXPECT_EQ(service.ResetTimeoutCount(), 2u);
    EXPECT_STREQ(NotifyExportService::GetEventMsg(NE_RENAMEFOLDER), "NE_RENAMEFOLDER");
    EXPECT_STREQ(NotifyExportService::GetEventMsg(static_cast<NOTIFYEVENT>(0x3)), "Unknown");
}

}  // namespace
