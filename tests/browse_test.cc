// Browsing a file system without the kernel: records and attributes, path
// resolution over protocols, listings and their refresh, quotas.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <thread>

#include "foundation/time_utils.h"
#include "fs/filesystem.h"
#include "libfilesystem/libfilesystem.h"
#include "remotes/local_protocol.h"
#include "support/volume_fixture.h"
#include "tree/file.h"

namespace {

using Op = TestRemote::Op;

// Holds queued jobs until the test runs them.
class HoldingQueue : public IAsyncQ {
  public:
    void Stop() override {}
    void Drain() override {}
    AERROR Queue(IAsyncObj* job, void* context) override {
        std::lock_guard<std::mutex> lock(mutex_);
        held_.emplace_back(job, context);
        return SUCCESS;
    }
    size_t RunAll() {
        std::vector<std::pair<IAsyncObj*, void*>> jobs;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            jobs.swap(held_);
        }
        for (auto& [job, context] : jobs)
            job->Process(context);
        return jobs.size();
    }

  private:
    std::mutex mutex_;
    std::vector<std::pair<IAsyncObj*, void*>> held_;
};

// A protocol that runs `afterList` once, when it has read the folder "/dir"
// and before that listing returns.
class HookedListProtocol : public TestRemote {
  public:
    AERROR ListFolder(const char* key, IFileList* sink, void** cookie) override {
        const AERROR result = TestRemote::ListFolder(key, sink, cookie);
        std::function<void()> hook;
        if (std::string(key) == "/dir") hook.swap(afterList);
        if (hook) hook();
        return result;
    }
    std::function<void()> afterList;
};

// A protocol whose listings also carry records a server should never send.
class UntrustedNamesProtocol : public TestRemote {
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
        return TestRemote::ListFolder(key, sink, cookie);
    }
};

class BrowseTest : public VolumeFixture {
  protected:
    int Stat(const char* path, struct stat* st) { return fs_->GetAttr(path, st, "test"); }
    const std::set<std::string> markers_ = {".", "..", ".ql_disablethumbnails", ".ql_disablecache"};
};

TEST_F(BrowseTest, AttributesFollowTheRecords) {
    protocol_->AddFile("/docs/report.txt", std::string(1234, 'x'), "2024-03-04T05:06:07.000Z");
    protocol_->AddFolder("/empty");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);

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

    struct stat again;  // inode numbers are stable under any spelling
    Stat("/DOCS/Report.TXT", &again);
    EXPECT_EQ(again.st_ino, file.st_ino);
    EXPECT_NE(again.st_ino, folder.st_ino);
}

TEST_F(BrowseTest, PathsAreCanonicalisedAndCaseFolded) {
    EXPECT_EQ(FileSystem::ToExactPath("\\Docs\\.\\Sub\\..\\File.TXT", false), "docs/file.txt");
    EXPECT_EQ(FileSystem::ToExactPath("/", false), "");
    EXPECT_EQ(FileSystem::ToExactPath("", false), "");
    EXPECT_EQ(FileSystem::ToExactPath("../../a//b/", false), "a/b");
    EXPECT_EQ(FileSystem::ToExactPath("\\Keep\\Case.TXT", true), "Keep/Case.TXT");
    EXPECT_EQ(FileSystem::GetObjectName("a/b/c.txt", "\\/"), "c.txt");
    EXPECT_EQ(FileSystem::GetObjectName("", "\\/"), "");

    protocol_->AddFolder("/Alpha/Beta");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
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
    auto second = std::make_shared<TestRemote>();
    protocol_->AddFile("/first.txt", "1");
    second->AddFile("/second.txt", "2");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "first"), SUCCESS);
    ASSERT_EQ(fs_->AddProtocol(second, "second"), SUCCESS);
    std::shared_ptr<LocalProtocol> again;  // the second's folder once more
    ASSERT_TRUE(LocalProtocol::Create(second->Path(""), &again).ok());
    EXPECT_EQ(fs_->AddProtocol(again, "again"), FS_ALREADY_AUTHORIZED);

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
    protocol_->AddFolder("/unlisted");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"fetch": {"async": "100"}}})"), SUCCESS);

    struct stat st;
    ASSERT_EQ(Stat("/dir/old.txt", &st), 0);
    const int firstListings = protocol_->Calls(Op::ListFolder);
    EXPECT_EQ(firstListings, 2);  // the root and dir, each listed once, synchronously
    EXPECT_EQ(Stat("/dir/old.txt", &st), 0);
    List("/dir");
    // Desktop probes never list a folder.
    EXPECT_EQ(Stat("/unlisted/.Trashes", &st), -ENOENT);
    EXPECT_EQ(Stat("/unlisted/.localized", &st), -ENOENT);
    EXPECT_EQ(protocol_->Calls(Op::ListFolder), firstListings);

    HoldingQueue queue;
    FS_BindAsyncQ(&queue);
    protocol_->AddFile("/dir/new.txt", "new");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    // Stale: the refresh is queued, and the old children answer meanwhile.
    auto names = List("/dir");
    EXPECT_TRUE(names.count("old.txt") && !names.count("new.txt"));
    EXPECT_GE(queue.RunAll(), 1u);
    names = List("/dir");
    EXPECT_TRUE(names.count("new.txt") && names.count(".ql_disablecache"));
}

// A refresh knows only what the remote held when it read the folder: a file
// whose upload landed after that is kept, not dropped as unseen.
TEST_F(BrowseTest, ARefreshKeepsAFileStoredWhileItRan) {
    auto protocol = std::make_shared<HookedListProtocol>();
    protocol->AddFolder("/dir");
    ASSERT_EQ(fs_->AddProtocol(protocol, "remote"), SUCCESS);
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"fetch": {"async": "100"}}})"), SUCCESS);
    List("/dir");
    protocol->Pause(Op::UploadItem);
    unsigned long long handle = 0;
    ASSERT_EQ(fs_->Create("/dir/c.txt", 0644, O_WRONLY, handle, nullptr, "test"), 0);
    ASSERT_EQ(fs_->Write(handle, "c", 1, 0, nullptr, "test"), 1);
    const auto node = Node("/dir/c.txt");
    ASSERT_NE(node, nullptr);
    // Without a queue the upload runs, and is held, on the closing thread.
    std::thread closer([&] { fs_->Release(handle, nullptr, "test"); });
    EXPECT_TRUE(protocol->WaitForPaused(Op::UploadItem, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    HoldingQueue queue;
    FS_BindAsyncQ(&queue);
    List("/dir");  // queues the refresh
    // The upload lands after the refresh read the folder, before it merges.
    protocol->afterList = [&] {
        protocol->Resume(Op::UploadItem);
        for (int i = 0; i < 1000 && node->Key().empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    EXPECT_GE(queue.RunAll(), 1u);
    closer.join();
    EXPECT_FALSE(node->Key().empty());
    EXPECT_TRUE(List("/dir").count("c.txt"));
}

TEST_F(BrowseTest, AFailedListingLeavesTheTreeAndIsReportedOnce) {
    protocol_->AddFile("/dir/a.txt", "a");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    protocol_->FailNext(Op::ListFolder, SOCK_TIMEOUT);
    EXPECT_EQ(List("/"), markers_);
    ASSERT_EQ(events_->Errors().size(), 1u);
    EXPECT_EQ(events_->Errors()[0].kind, FSEVENT_LIST_FAILED);
    EXPECT_EQ(events_->Errors()[0].code, SOCK_TIMEOUT);
    EXPECT_EQ(events_->Errors()[0].localPath, "/mnt/test/");
    // The folder was never listed, so the next access tries again.
    EXPECT_TRUE(List("/").count("dir"));
    EXPECT_EQ(events_->Errors().size(), 1u);
}

TEST_F(BrowseTest, UntrustedNamesNeverBecomeNodes) {
    auto protocol = std::make_shared<UntrustedNamesProtocol>();
    protocol->AddFile("/good.txt", "g");
    // No path can reach a name with a backslash: it is left out, said once.
    protocol->AddFile("/a\\b.txt", "unreachable");
    ASSERT_EQ(fs_->AddProtocol(protocol, "remote"), SUCCESS);
    auto expected = markers_;
    expected.insert("good.txt");
    EXPECT_EQ(List("/"), expected);
    EXPECT_EQ(log_.Count("[FILESYSTEM] No filename in data - bad/1/0", LL_WARNING), 5);
    fs_->SetConfiguration(R"({"fs": {"fetch": {"async": "0"}}})");
    List("/");
    EXPECT_EQ(log_.Count("a name with a backslash cannot be reached", LL_WARNING), 1);
}

TEST_F(BrowseTest, AMissPollsAProtocolThatReportsChangesAtMostOncePerInterval) {
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_REPORTS_CHANGES);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"changes": "60000"}})"), SUCCESS);
    struct stat st;
    EXPECT_EQ(Stat("/nothing", &st), -ENOENT);
    EXPECT_EQ(Stat("/nothing", &st), -ENOENT);
    EXPECT_EQ(Stat("/nothing/deeper", &st), -ENOENT);
    EXPECT_EQ(protocol_->Calls(Op::GetChanges), 1);
}

TEST_F(BrowseTest, StatFsSumsQuotasAndCachesThem) {
    struct statvfs sv = {};
    EXPECT_EQ(fs_->StatFs("/", &sv, "test"), 0);
    EXPECT_EQ(sv.f_blocks, 0u);
    EXPECT_EQ(sv.f_files, 1048576u);

    auto second = std::make_shared<TestRemote>();
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
    EXPECT_EQ(protocol_->Calls(Op::GetQuota), 1);
    EXPECT_EQ(second->Calls(Op::GetQuota), 1);
}

// Times set through the volume reach a protocol that can keep them; what the
// volume cannot store is refused (tools take an I/O error for damaged data).
TEST_F(BrowseTest, TimesReachTheProtocolAndWhatCannotBeStoredIsNotPermitted) {
    protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_SET_TIME);
    protocol_->AddFile("/f.txt", "f");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    EXPECT_EQ(fs_->ChangeOwner("/f.txt", getuid() + 1, getgid(), "test"), -EPERM);
    EXPECT_EQ(fs_->ChangeOwner("/f.txt", getuid(), getgid(), "tar"), 0);  // nothing to change
    EXPECT_EQ(fs_->MakeNode("/fifo", S_IFIFO | 0644, 0, "test"), -EPERM);
    EXPECT_EQ(fs_->MakeDir(("/" + std::string(256, 'n')).c_str(), 0755, "test"), -ENAMETOOLONG);
    EXPECT_EQ(protocol_->Calls(Op::CreateFolder), 0);

    const struct timespec times[2] = {{1700000000, 0}, {1700000100, 0}};
    EXPECT_EQ(fs_->UtimeNs("/f.txt", times, 0, "touch"), 0);
    EXPECT_EQ(protocol_->Calls(Op::SetItemTime), 1);
    struct stat st;
    ASSERT_EQ(Stat("/f.txt", &st), 0);
    EXPECT_EQ(st.st_mtime, 1700000100);
    EXPECT_EQ(st.st_atime, 1700000000);
    // An unknown handle, or one open for reading, changes nothing.
    EXPECT_EQ(fs_->UtimeNs("/f.txt", times, 42, "touch"), 0);
    EXPECT_EQ(protocol_->Calls(Op::SetItemTime), 1);
}

}  // namespace
