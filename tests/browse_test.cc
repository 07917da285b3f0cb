// Browsing a file system without the kernel: records and attributes, path
// resolution over protocols, listings and their refresh, quotas.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "foundation/time_utils.h"
#include "fs/filesystem.h"
#include "libfilesystem/libfilesystem.h"
#include "support/memory_protocol.h"
#include "support/test_env.h"
#include "tree/file.h"

namespace {

// Holds queued jobs until the test runs them.
class HoldingQueue : public IAsyncQ {
  public:
    void Stop() override {}
    AERROR Queue(IAsyncObj* job, void* context) override {
        std::lock_guard<std::mutex> lock(mutex_);
        held_.emplace_back(job, context);
        return SUCCESS;
    }
    void Drain() override {}
    size_t Held() {
        std::lock_guard<std::mutex> lock(mutex_);
        return held_.size();
    }
    void RunAll() {
        std::vector<std::pair<IAsyncObj*, void*>> jobs;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            jobs.swap(held_);
        }
        for (auto& [job, context] : jobs)
            job->Process(context);
    }

  private:
    std::mutex mutex_;
    std::vector<std::pair<IAsyncObj*, void*>> held_;
};

class RecordingEvents : public IFSEvent {
  public:
    void Error(int kind, AERROR code, const char* localPath, const char*, void*) override {
        std::lock_guard<std::mutex> lock(mutex);
        errors.push_back({kind, code, localPath});
    }
    void Notice(int, const char*, const char*, const char*) override {}
    int AskUploadFailure(AERROR, const char*, char*, unsigned long) override { return 0; }
    void Progress(const char*, unsigned long long, unsigned long long, double) override {}

    struct Report {
        int kind;
        AERROR code;
        std::string path;
    };
    std::mutex mutex;
    std::vector<Report> errors;
};

// A protocol whose listings also carry records a server should never send.
class UntrustedNamesProtocol : public MemoryProtocol {
  public:
    AERROR ListFolder(const char* key, IFileList* sink, void** cookie) override {
        for (const std::string& name : {std::string(), std::string("."), std::string(".."),
                                        std::string("a/b"), std::string("nul\0byte", 8)}) {
            _FS_FILE_V2 record;
            record.key = "bad";
            record.attributes = FILE_ATTRIBUTE_FILE;
            record.name = name;
            sink->AddFile(&record);
        }
        return MemoryProtocol::ListFolder(key, sink, cookie);
    }
};

class BrowseTest : public ::testing::Test {
  protected:
    void SetUp() override {
        FS_BindLogger(FS_LOGGER_MAIN, &log_);
        fs_ = std::make_unique<FileSystem>(L"/mnt/test", "Test", "/mnt/test", FEATURE_ASYNC_UPLOAD);
        protocol_ = std::make_shared<MemoryProtocol>();
    }
    void TearDown() override {
        fs_->Finalize();
        fs_->Destroy();
        FS_UnbindAsyncQ();
        FS_UnbindLogger();
    }
    int Stat(const char* path, struct stat* st) { return fs_->GetAttr(path, st, "test"); }
    std::set<std::string> List(const char* path) {
        std::list<FS_DIR_ENTRY> entries;
        EXPECT_EQ(fs_->ReadDir(path, entries, "test"), 0);
        std::set<std::string> names;
        for (const auto& entry : entries)
            names.insert(entry.name);
        return names;
    }
    std::shared_ptr<File> Node(const char* path) {
        std::shared_ptr<File> node;
        fs_->GetFile(FileSystem::ToExactPath(path, false).c_str(), node);
        return node;
    }

    RecordingLog log_;
    std::unique_ptr<FileSystem> fs_;
    std::shared_ptr<MemoryProtocol> protocol_;
};

TEST_F(BrowseTest, AttributesFollowTheRecords) {
    protocol_->AddFile("/docs/report.txt", std::string(1234, 'x'), "2024-03-04T05:06:07.000Z");
    protocol_->AddFolder("/empty");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);

    struct stat file, folder, empty, root;
    ASSERT_EQ(Stat("/docs/report.txt", &file), 0);
    EXPECT_EQ(file.st_size, 1234);
    EXPECT_EQ(file.st_mode, static_cast<mode_t>(S_IFREG | 0644));
    EXPECT_EQ(file.st_nlink, 1u);
    EXPECT_EQ(file.st_mtime, RFC3339ToTM("2024-03-04T05:06:07.000Z"));
    EXPECT_EQ(file.st_uid, getuid());

    ASSERT_EQ(Stat("/docs", &folder), 0);
    EXPECT_EQ(folder.st_mode, static_cast<mode_t>(S_IFDIR | 0755));
    EXPECT_EQ(folder.st_size, 1446);
    EXPECT_EQ(folder.st_nlink, 5u);  // report.txt, the two marker files, plus 2
    ASSERT_EQ(Stat("/empty", &empty), 0);
    List("/empty");
    ASSERT_EQ(Stat("/empty", &empty), 0);
    EXPECT_EQ(empty.st_nlink, 4u);
    ASSERT_EQ(Stat("/", &root), 0);
    EXPECT_EQ(root.st_size, 1446);

    // Inode numbers are the nodes' serials: distinct, and stable.
    std::set<ino_t> inodes = {file.st_ino, folder.st_ino, empty.st_ino, root.st_ino};
    EXPECT_EQ(inodes.size(), 4u);
    struct stat again;
    Stat("/DOCS/Report.TXT", &again);
    EXPECT_EQ(again.st_ino, file.st_ino);
}

TEST_F(BrowseTest, ARootWithoutAKeyStillHasAValidRecord) {
    protocol_->SetRootKey("");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto root = Node("/");
    ASSERT_TRUE(root);
    auto info = root->Info();
    EXPECT_EQ(info->attributes, FILE_ATTRIBUTE_FOLDER | FILE_ATTRIBUTE_ROOT);
    EXPECT_FALSE(info->modifyTime.empty());
    EXPECT_EQ(info->modifyTime, info->accessTime);
    EXPECT_EQ(info->modifyTime, info->createTime);
}

TEST_F(BrowseTest, RecordsPathsAndTimeHelpers) {
    EXPECT_EQ(File::FileTimeToTimet(0, 0), 0);
    const uint64_t epoch = 116444736000000000ULL;
    EXPECT_EQ(File::FileTimeToTimet(epoch & 0xffffffff, epoch >> 32), 0);
    const uint64_t second = epoch + 10000000ULL;
    EXPECT_EQ(File::FileTimeToTimet(second & 0xffffffff, second >> 32), 1);

    _FS_FILE_V2 remote;
    remote.size = 10;
    _FS_FILE_EXT ext;
    ext = remote;
    EXPECT_EQ(ext.knownSize, 10);
    _FS_FILE_EXT copy = ext;
    copy.size = 20;  // a plain copy does not take a new known size
    EXPECT_EQ(copy.knownSize, 10);

    protocol_->AddFile("/100% done/50%.txt", "x");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto node = Node("/100% done/50%.txt");
    ASSERT_TRUE(node);
    EXPECT_EQ(node->GetFileNameForPrint(), "50%%.txt");
    EXPECT_EQ(node->BuildPathForPrint('/', true), "100% done/50%.txt");
    EXPECT_EQ(node->BuildPathForPrint('/', false), "100%% done/50%%.txt");
    EXPECT_EQ(node->BuildPathA('\\'), "100% done\\50%.txt");
    EXPECT_EQ(node->BuildLocalPathA('/'), "/mnt/test/100% done/50%.txt");
    EXPECT_EQ(node->BuildOriginPathA(), "Test/100% done/50%.txt");
}

TEST_F(BrowseTest, PathsAreCanonicalisedAndCaseFolded) {
    EXPECT_EQ(FileSystem::ToExactPath("\\Docs\\.\\Sub\\..\\File.TXT", false), "docs/file.txt");
    EXPECT_EQ(FileSystem::ToExactPath("/", false), "");
    EXPECT_EQ(FileSystem::ToExactPath("", false), "");
    EXPECT_EQ(FileSystem::ToExactPath("../../a//b/", false), "a/b");
    EXPECT_EQ(FileSystem::ToExactPath("\\Keep\\Case.TXT", true), "Keep/Case.TXT");
    EXPECT_EQ(FileSystem::GetObjectName("a/b/c.txt", "\\/"), "c.txt");
    EXPECT_EQ(FileSystem::GetObjectName("", "\\/"), "");

    std::shared_ptr<File> none;
    EXPECT_EQ(fs_->GetFile("/", none), FAILED);
    EXPECT_FALSE(none);

    protocol_->AddFolder("/Alpha/Beta");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    auto root = Node("/");
    for (const char* path : {"/", "//", ".", ""})
        EXPECT_EQ(Node(path), root) << path;
    auto beta = Node("A\\B");
    EXPECT_FALSE(beta);  // A is not Alpha
    beta = Node("Alpha\\Beta");
    ASSERT_TRUE(beta);
    EXPECT_EQ(Node("alpha/beta"), beta);
    EXPECT_EQ(Node("ALPHA/BETA/"), beta);
    EXPECT_EQ(beta->Name(), "Beta");

    std::shared_ptr<File> out;
    EXPECT_EQ(fs_->GetFile("missing/leaf", out), PATH_NOT_FOUND);
    EXPECT_EQ(fs_->GetFile("alpha/missing", out), FILE_NOT_FOUND);
    EXPECT_EQ(fs_->GetParent("missing/leaf", out), PATH_NOT_FOUND);
    EXPECT_EQ(fs_->GetParent("missing", out), SUCCESS);
    EXPECT_EQ(out, root);
}

TEST_F(BrowseTest, ProtocolsOverlayAtTheRoot) {
    auto second = std::make_shared<MemoryProtocol>("memory://second");
    protocol_->AddFile("/first.txt", "1");
    second->AddFile("/second.txt", "2");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "first"), SUCCESS);
    ASSERT_EQ(fs_->AddProtocol(second, "second"), SUCCESS);
    EXPECT_EQ(fs_->AddProtocol(std::make_shared<MemoryProtocol>("memory://second"), "again"),
              FS_ALREADY_AUTHORIZED);
    EXPECT_EQ(fs_->GetProtocolCount(), 2);
    std::shared_ptr<IProtocol_V2> out;
    EXPECT_EQ(fs_->GetProtocol(2, out), INVALID_PARAMETER);
    EXPECT_EQ(fs_->GetProtocol(1, out), SUCCESS);
    EXPECT_EQ(out, second);

    struct stat st;
    EXPECT_EQ(Stat("/second.txt", &st), 0);  // the first tree's miss never hides it
    EXPECT_EQ(Stat("/third.txt", &st), -ENOENT);
    const auto names = List("/");
    EXPECT_TRUE(names.count("first.txt"));
    EXPECT_TRUE(names.count("second.txt"));
    EXPECT_TRUE(List("/no/such/folder").empty());
}

TEST_F(BrowseTest, ListingIsSynchronousFirstThenRefreshedInTheBackground) {
    protocol_->AddFile("/dir/old.txt", "old");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"fetch": {"async": "100"}}})"), SUCCESS);

    struct stat st;
    ASSERT_EQ(Stat("/dir/old.txt", &st), 0);
    const int firstListings = protocol_->Calls(MemoryProtocol::Op::ListFolder);
    EXPECT_EQ(firstListings, 2);  // the root and dir, each listed once, synchronously
    EXPECT_EQ(Stat("/dir/old.txt", &st), 0);
    List("/dir");
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::ListFolder), firstListings);

    HoldingQueue queue;
    FS_BindAsyncQ(&queue);
    protocol_->AddFile("/dir/new.txt", "new");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    // Stale: the refresh is queued, and the old children answer meanwhile.
    auto names = List("/dir");
    EXPECT_GE(queue.Held(), 1u);
    EXPECT_TRUE(names.count("old.txt"));
    EXPECT_FALSE(names.count("new.txt"));
    queue.RunAll();
    names = List("/dir");
    EXPECT_TRUE(names.count("new.txt"));
    EXPECT_TRUE(names.count(".ql_disablethumbnails"));
    EXPECT_TRUE(names.count(".ql_disablecache"));
}

TEST_F(BrowseTest, AFailedListingLeavesTheTreeAndIsReportedOnce) {
    auto events = std::make_shared<RecordingEvents>();
    fs_->SetFSEvent(events);
    protocol_->AddFile("/dir/a.txt", "a");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    protocol_->FailNext(MemoryProtocol::Op::ListFolder, SOCK_TIMEOUT);
    const auto before = List("/");
    EXPECT_EQ(before,
              (std::set<std::string>{".", "..", ".ql_disablethumbnails", ".ql_disablecache"}));
    ASSERT_EQ(events->errors.size(), 1u);
    EXPECT_EQ(events->errors[0].kind, FSEVENT_LIST_FAILED);
    EXPECT_EQ(events->errors[0].code, SOCK_TIMEOUT);
    EXPECT_EQ(events->errors[0].path, "/mnt/test/");
    EXPECT_EQ(protocol_->CookiesOutstanding(), 0);
    // The folder was never listed, so the next access tries again.
    EXPECT_TRUE(List("/").count("dir"));
    EXPECT_EQ(events->errors.size(), 1u);
}

TEST_F(BrowseTest, DesktopProbesNeverListAFolder) {
    protocol_->AddFolder("/dir");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    struct stat st;
    Stat("/dir", &st);
    protocol_->ResetCounters();
    EXPECT_EQ(Stat("/dir/.Trashes", &st), -ENOENT);
    EXPECT_EQ(Stat("/dir/.localized", &st), -ENOENT);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::ListFolder), 0);
}

TEST_F(BrowseTest, UntrustedNamesNeverBecomeNodes) {
    auto protocol = std::make_shared<UntrustedNamesProtocol>();
    protocol->AddFile("/good.txt", "g");
    // No path can reach a name with a backslash: it is left out, said once.
    protocol->AddFile("/a\\b.txt", "unreachable");
    ASSERT_EQ(fs_->AddProtocol(protocol, "memory"), SUCCESS);
    const auto names = List("/");
    EXPECT_EQ(names, (std::set<std::string>{".", "..", ".ql_disablethumbnails", ".ql_disablecache",
                                            "good.txt"}));
    EXPECT_EQ(log_.Count("[FILESYSTEM] No filename in data - bad/1/0", LL_WARNING), 5);
    fs_->SetConfiguration(R"({"fs": {"fetch": {"async": "0"}}})");
    List("/");
    EXPECT_EQ(log_.Count("a name with a backslash cannot be reached", LL_WARNING), 1);
}

TEST_F(BrowseTest, AMissPollsAProtocolThatReportsChangesAtMostOncePerInterval) {
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_REPORTS_CHANGES);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"changes": "60000"}})"), SUCCESS);
    struct stat st;
    EXPECT_EQ(Stat("/nothing", &st), -ENOENT);
    EXPECT_EQ(Stat("/nothing", &st), -ENOENT);
    EXPECT_EQ(Stat("/nothing/deeper", &st), -ENOENT);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::GetChanges), 1);
}

TEST_F(BrowseTest, StatFsSumsQuotasAndCachesThem) {
    struct statvfs sv = {};
    EXPECT_EQ(fs_->StatFs("/", &sv, "test"), 0);
    EXPECT_EQ(sv.f_blocks, 0u);
    EXPECT_EQ(sv.f_files, 1048576u);

    auto second = std::make_shared<MemoryProtocol>("memory://second");
    protocol_->SetQuota(65536ULL * 100, 65536ULL * 40);
    second->SetQuota(65536ULL * 50, 65536ULL * 10);
    fs_->AddProtocol(protocol_, "first");
    fs_->AddProtocol(second, "second");
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"quota": "60000"}})"), SUCCESS);
    sv = {};
    EXPECT_EQ(fs_->StatFs("/", &sv, "test"), 0);
    EXPECT_EQ(sv.f_bsize, 65536u);
    EXPECT_EQ(sv.f_blocks, 150u);
    EXPECT_EQ(sv.f_bfree, 100u);
    EXPECT_EQ(sv.f_bavail, 100u);
    EXPECT_EQ(fs_->StatFs("/", &sv, "test"), 0);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::GetQuota), 1);
    EXPECT_EQ(second->Calls(MemoryProtocol::Op::GetQuota), 1);
}

TEST_F(BrowseTest, OperationsWithFixedAnswers) {
    protocol_->AddFile("/f.txt", "f");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    // What the volume cannot keep is refused as not permitted, not as an
    // I/O error that tools take for damaged data.
    EXPECT_EQ(fs_->ChangeOwner("/f.txt", getuid() + 1, getgid(), "test"), -EPERM);
    EXPECT_EQ(fs_->ChangeOwner("/f.txt", getuid(), getgid(), "tar"), 0);  // nothing to change
    EXPECT_EQ(fs_->ChangeOwner("/f.txt", static_cast<unsigned>(-1), getgid(), "tar"), 0);
    EXPECT_EQ(fs_->ChangeOwner("/missing", getuid(), getgid(), "tar"), -ENOENT);
    EXPECT_EQ(fs_->MakeNode("/fifo", S_IFIFO | 0644, 0, "test"), -EPERM);
    EXPECT_EQ(fs_->MakeDir(("/" + std::string(256, 'n')).c_str(), 0755, "test"), -ENAMETOOLONG);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::CreateFolder), 0);
    EXPECT_EQ(fs_->Flush("/whatever", "test"), 0);
    EXPECT_EQ(fs_->Access("/f.txt", R_OK, "test"), 0);
    EXPECT_EQ(fs_->OpenDir("/f.txt", "test"), -EIO);
    EXPECT_EQ(fs_->OpenDir("/", "test"), 0);
    struct stat st;
    EXPECT_EQ(fs_->GetAttrByHandle(99, &st, "test"), -EIO);
    EXPECT_TRUE(log_.Has("handle not found : 99"));
}

TEST_F(BrowseTest, TimesSetThroughTheVolumeReachTheProtocolWhenItCan) {
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_SET_TIME);
    protocol_->AddFile("/f.txt", "f");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    const struct timespec times[2] = {{1700000000, 0}, {1700000100, 0}};
    EXPECT_EQ(fs_->UtimeNs("/f.txt", times, 0, "touch"), 0);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::SetItemTime), 1);
    struct stat st;
    ASSERT_EQ(Stat("/f.txt", &st), 0);
    EXPECT_EQ(st.st_mtime, 1700000100);
    EXPECT_EQ(st.st_atime, 1700000000);
    // An unknown handle, or one open for reading, changes nothing.
    EXPECT_EQ(fs_->UtimeNs("/f.txt", times, 42, "touch"), 0);
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::SetItemTime), 1);
}

TEST(HandleTableTest, WriteCountsDuplicatesAndNumbers) {
    FileHandles handles;
    auto reader = handles.OpenHandleRead(nullptr);
    auto writer = handles.OpenHandleWrite(nullptr);
    EXPECT_EQ(writer->mode, HANDLE_MODE_WRITE);
    EXPECT_TRUE(handles.ExistWriteHandle());
    EXPECT_FALSE(handles.CloseHandle(reinterpret_cast<void*>(0x1234)));
    EXPECT_EQ(handles.WriteCount(), 1u);

    // A duplicate counts as a writer, and closing it closes the original.
    writer->process = "cp";
    auto copy = handles.DupHandle(writer);
    ASSERT_TRUE(copy);
    EXPECT_EQ(handles.WriteCount(), 2u);
    EXPECT_EQ(copy->process, "cp");
    EXPECT_EQ(copy->reservedPosition.load(), -1);
    EXPECT_TRUE(handles.CloseHandle(copy.get()));
    EXPECT_EQ(writer->state.load(), HANDLE_STATE_CLOSED);
    EXPECT_EQ(copy->state.load(), HANDLE_STATE_OPEN);
    EXPECT_EQ(handles.WriteCount(), 1u);
    EXPECT_FALSE(handles.DupHandle(nullptr));

    EXPECT_EQ(handles.CountExcept(""), 1);  // the writer has a process name
    EXPECT_EQ(handles.CountExcept("cp"), 1);
    EXPECT_TRUE(handles.HasAnyOpened());
    EXPECT_TRUE(handles.CloseHandle(writer.get()));
    EXPECT_FALSE(handles.ExistWriteHandle());
    handles.CloseAllHandles();
    EXPECT_FALSE(handles.HasAnyOpened());
    EXPECT_EQ(reader->state.load(), HANDLE_STATE_CLOSED);  // alive while held, and closed
}

TEST(HandleTableTest, HandleNumbersStartAtOneAndAreNeverReused) {
    FileSystem fs(L"/mnt/x", "X", "/mnt/x", FEATURE_NONE);
    FileHandles handles;
    auto first = handles.OpenHandleRead(nullptr);
    auto second = handles.OpenHandleRead(nullptr);
    EXPECT_EQ(fs.RegisterHandle(first, nullptr, "cat", "a"), 1u);
    EXPECT_EQ(fs.RegisterHandle(second, nullptr, "cat", "a"), 2u);
    EXPECT_EQ(fs.GetHandle(1), first);
    fs.UnregisterHandle(1, "cat");
    EXPECT_FALSE(fs.GetHandle(1));
    auto third = handles.OpenHandleRead(nullptr);
    EXPECT_EQ(fs.RegisterHandle(third, nullptr, "cat", "a"), 3u);
    fs.Finalize();
    fs.Destroy();
}

}  // namespace
