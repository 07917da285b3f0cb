// The local-folder remote, driven through IProtocol_V2 the way the library
// drives it, on a scratch folder that other "programs" (the test itself)
// change behind its back; then the fault remote: its FAULTS text as the
// command line takes it, and the remote wrapped around the local one.
#include "remotes/local_protocol.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "cli/remote_schemes.h"
#include "protocol_recorders.h"
#include "remotes/fault_protocol.h"
#include "support/test_env.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kTempPrefix = ".skarvo-upload-";

class LocalProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(root_);
        fs::create_directories(base_ + "/outside");
        WriteText(base_ + "/outside/secret.txt", "secret");
        const Status created = LocalProtocol::Create(root_, &protocol_);
        ASSERT_TRUE(created.ok()) << created.message();
    }
    void TearDown() override { protocol_.reset(); }
    std::string Path(const std::string& relative) const { return root_ + "/" + relative; }
    // Every name in a folder, temporary files included.
    std::string RawNames(const std::string& relative = "") const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(Path(relative)))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        std::string all;
        for (const auto& name : names)
            all += name + " ";
        return all;
    }
    // The code of a call; a failure must come with a cookie whose text holds
    // `textPart`, which is then released.
    AERROR Code(const std::function<AERROR(void**)>& call, const std::string& textPart = "") {
        void* cookie = nullptr;
        const AERROR code = call(&cookie);
        if (code != SUCCESS) {
            char text[512] = "";
            EXPECT_NE(cookie, nullptr);
            EXPECT_EQ(protocol_->DescribeCookie(cookie, text, sizeof text), SUCCESS);
            EXPECT_NE(std::string(text).find(textPart), std::string::npos) << text;
        }
        protocol_->ReleaseCookie(cookie);
        return code;
    }
    AERROR GetItem(const std::string& key, _FS_FILE_V2* record = nullptr) {
        _FS_FILE_V2 scratch;
        return Code([&](void** c) {
            return protocol_->GetItem(key.c_str(), record ? record : &scratch, c);
        });
    }
    AERROR Upload(const std::string& parentKey, _FS_FILE_V2 record, StringSource* source,
                  const std::string& textPart = "") {
        return Code(
            [&](void** c) {
                return protocol_->UploadItem(parentKey.c_str(), std::make_shared<_FS_HANDLE>(),
                                             source, &record, nullptr, c);
            },
            textPart);
    }
    // Polls GetChanges until `line` has come; the limit only guards against a hang.
    bool WaitForReport(ChangeRecorder* changes, const std::string& line) {
        return WaitUntil([&] {
            EXPECT_EQ(Code([&](void** c) { return protocol_->GetChanges(changes, c); }), SUCCESS);
            return changes->Has(line);
        });
    }

    TempDir tmp_;
    const std::string base_ = tmp_.path();
    const std::string root_ = base_ + "/remote";
    std::shared_ptr<LocalProtocol> protocol_;
};

TEST_F(LocalProtocolTest, NothingOutsideTheFolderIsReached) {
    WriteText(Path("a.txt"), "hello");
    fs::create_directory(Path("docs"));
    FetchRecorder fetch;
    ListRecorder list;
    for (const std::string key : {"/../outside/secret.txt", "/docs/../a.txt", "a.txt", "",
                                  "/docs//a.txt", "/docs/", "/./a.txt"}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(GetItem(key), INVALID_NAME);
        EXPECT_EQ(Code([&](void** c) {
                      return protocol_->Download(key.c_str(), 0, 10, nullptr, &fetch, c);
                  }),
                  INVALID_NAME);
        EXPECT_EQ(Code([&](void** c) { return protocol_->ListFolder(key.c_str(), &list, c); }),
                  INVALID_NAME);
    }
    for (const std::string& name :
         {std::string(".."), std::string("."), std::string(""), std::string("a/b"),
          std::string("a\0b", 3), std::string(kTempPrefix) + "x"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(name.size() == 3 && name[1] == '\0', protocol_->IsValidName(name.c_str()));
        _FS_FILE_V2 record = Record(name, 4);
        EXPECT_EQ(Code([&](void** c) { return protocol_->CreateFolder("/docs", &record, c); }),
                  INVALID_NAME);
        StringSource source("data");
        EXPECT_EQ(Upload("/docs", record, &source), INVALID_NAME);
        EXPECT_EQ(Code([&](void** c) { return protocol_->RenameItem("/a.txt", "/", &record, c); }),
                  INVALID_NAME);
    }
    EXPECT_TRUE(protocol_->IsValidName("ok name.txt"));

    // Symbolic links are neither listed nor followed, even those that stay inside.
    fs::create_directory_symlink(base_ + "/outside", Path("escape"));
    fs::create_symlink(base_ + "/outside/secret.txt", Path("secret.txt"));
    fs::create_symlink("a.txt", Path("inner"));
    fs::create_directory(Path("trash"));
    fs::create_directory_symlink(base_ + "/outside", Path("trash/escape"));
    ASSERT_EQ(protocol_->ListFolder("/", &list, nullptr), SUCCESS);
    EXPECT_EQ(list.Names(), "a.txt docs trash ");
    for (const char* key : {"/escape", "/escape/secret.txt", "/inner"})
        EXPECT_EQ(GetItem(key), ACCESS_DENIED) << key;
    EXPECT_EQ(
        Code([&](void** c) { return protocol_->ListFolder("/escape", &list, c); }, "symbolic link"),
        ACCESS_DENIED);
    EXPECT_EQ(Code([&](void** c) {
                  return protocol_->Download("/secret.txt", 0, 6, nullptr, &fetch, c);
              }),
              ACCESS_DENIED);
    EXPECT_TRUE(fetch.data.empty());
    StringSource source("overwritten");
    EXPECT_EQ(Upload("/escape", Record("new.txt", 11), &source), ACCESS_DENIED);
    EXPECT_EQ(Upload("/", Record("secret.txt", 11), &source), ACCESS_DENIED);
    _FS_FILE_V2 record = Record("", 0, "/escape");
    EXPECT_EQ(Code([&](void** c) { return protocol_->DeleteFolder(&record, c); }), ACCESS_DENIED);
    record.key = "/escape/secret.txt";
    EXPECT_EQ(Code([&](void** c) { return protocol_->DeleteItem(&record, c); }), ACCESS_DENIED);
    EXPECT_EQ(Code([&](void** c) { return protocol_->SetItemTime("/secret.txt", 0, 1, 1, c); }),
              ACCESS_DENIED);
    // Deleting a folder removes a link inside it, never what it points to.
    record.key = "/trash";
    EXPECT_EQ(protocol_->DeleteFolder(&record, nullptr), SUCCESS);
    EXPECT_EQ(RawNames(), "a.txt docs escape inner secret.txt ");
    EXPECT_TRUE(fs::is_empty(Path("docs")));
    EXPECT_EQ(RawNames("../outside"), "secret.txt ");
    EXPECT_EQ(ReadText(base_ + "/outside/secret.txt"), "secret");
}

TEST_F(LocalProtocolTest, UploadsLandWholeOrNotAtAll) {
    fs::create_directory(Path("docs"));
    const std::string content = RandomBytes(2 * 1024 * 1024 + 17);
    StringSource source(content);
    source.maxPerRead = 300000;  // the source hands out less than asked
    std::vector<std::pair<unsigned long long, unsigned long long>> reports;
    _TRANSFERPROGRESS progress;
    progress.context = &reports;
    progress.callback = [](unsigned long long done, unsigned long long total, double, void* to) {
        static_cast<decltype(reports)*>(to)->emplace_back(done, total);
    };
    _FS_FILE_V2 record = Record("new.bin", content.size());
    auto handle = std::make_shared<_FS_HANDLE>();
    ASSERT_EQ(protocol_->UploadItem("/docs", handle, &source, &record, &progress, nullptr),
              SUCCESS);
    EXPECT_TRUE(ReadText(Path("docs/new.bin")) == content);
    EXPECT_EQ(record.key, "/docs/new.bin");
    EXPECT_EQ(std::count(source.handles.begin(), source.handles.end(), handle),
              static_cast<long>(source.handles.size()));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), std::make_pair(1ull * content.size(), 1ull * content.size()));
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    StringSource empty("");
    ASSERT_EQ(Upload("/", Record("empty"), &empty), SUCCESS);
    EXPECT_EQ(fs::file_size(Path("empty")), 0u);

    // The key decides which item an upload overwrites; its permissions stay.
    ASSERT_EQ(chmod(Path("docs/new.bin").c_str(), 0640), 0);
    StringSource shorter("new");
    record = Record("renamed-on-the-volume.txt", 3, "/docs/new.bin");
    ASSERT_EQ(protocol_->UploadItem("/docs", handle, &shorter, &record, nullptr, nullptr), SUCCESS);
    EXPECT_EQ(ReadText(Path("docs/new.bin")) + " " + record.name, "new new.bin");
    struct stat st {};
    ASSERT_EQ(stat(Path("docs/new.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    // Without a key, an existing file of the name is replaced as well.
    StringSource again("again");
    ASSERT_EQ(Upload("/docs", Record("new.bin", 5), &again), SUCCESS);
    EXPECT_EQ(ReadText(Path("docs/new.bin")), "again");
    EXPECT_EQ(RawNames("docs"), "new.bin ");
    EXPECT_EQ(Upload("/", Record("docs", 5), &again), ALREADY_EXISTS);

    // A source that fails or ends early leaves the original, seen whole by
    // readers meanwhile, and no temporary file.
    WriteText(Path("doc.txt"), "original");
    for (const bool endEarly : {false, true}) {
        StringSource broken(RandomBytes(3 * 1024 * 1024));
        (endEarly ? broken.endAt : broken.failAt) = 2 * 1024 * 1024;
        bool checkedMidway = false;
        broken.beforeRead = [&](int64_t offset) {
            if (offset == 0) return;
            checkedMidway = true;
            EXPECT_EQ(ReadText(Path("doc.txt")), "original");
            EXPECT_NE(RawNames().find(kTempPrefix), std::string::npos);
            ListRecorder list;
            EXPECT_EQ(protocol_->ListFolder("/", &list, nullptr), SUCCESS);
            EXPECT_EQ(list.Names(), "doc.txt docs empty ");
        };
        EXPECT_EQ(Upload("/", Record("doc.txt", 3 * 1024 * 1024, "/doc.txt"), &broken,
                         endEarly ? "ended after" : ""),
                  endEarly ? FILE_READ_FAILED : FAILED);
        EXPECT_TRUE(checkedMidway);
        EXPECT_EQ(ReadText(Path("doc.txt")), "original");
        EXPECT_EQ(RawNames(), "doc.txt docs empty ");
    }

    // A folder renamed while an upload into it runs does not receive the
    // file under a key that names its old place.
    fs::create_directory(Path("old"));
    StringSource moving(RandomBytes(2 * 1024 * 1024));
    moving.maxPerRead = 1024 * 1024;
    moving.beforeRead = [&](int64_t offset) {
        if (offset == 0) return;
        _FS_FILE_V2 folder = Record("new", 0);
        EXPECT_EQ(protocol_->RenameItem("/old", "/", &folder, nullptr), SUCCESS);
    };
    EXPECT_EQ(Upload("/old", Record("late.bin", 2 * 1024 * 1024), &moving, "moved"),
              PATH_NOT_FOUND);
    EXPECT_EQ(RawNames("new"), "");
    fs::remove(Path("new"));

    // Concurrent uploads of one file each land whole.
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    constexpr size_t kSize = 256 * 1024;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&, i] {
            StringSource same(std::string(kSize, static_cast<char>('A' + i)));
            same.maxPerRead = 4096;
            if (Upload("/docs", Record("same.bin", kSize), &same) != SUCCESS) ++failures;
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    const std::string landed = ReadText(Path("docs/same.bin"));
    EXPECT_TRUE(landed.size() == kSize && landed == std::string(kSize, landed[0]));
    EXPECT_EQ(RawNames("docs"), "new.bin same.bin ");
}

TEST_F(LocalProtocolTest, ReportsChangesOfOtherProgramsButNotItsOwn) {
    fs::create_directories(Path("old/inner"));
    // Folders there at the start are watched.
    const Status created = LocalProtocol::Create(root_, &protocol_);
    ASSERT_TRUE(created.ok()) << created.message();
    ChangeRecorder changes;
    WriteText(Path("old/inner/x.txt"), "12345");
    ASSERT_TRUE(WaitForReport(&changes, "added /old/inner x.txt")) << changes.all;
    // Twenty writes raise some forty events before anyone asks; what comes
    // then is a few reports carrying the final state.
    for (int i = 0; i < 20; ++i)
        std::ofstream(Path("old/inner/x.txt"), std::ios::app) << "x";
    fs::create_directory(Path("sub"));
    ASSERT_TRUE(WaitForReport(&changes, "added / sub")) << changes.all;
    EXPECT_TRUE(changes.Has("changed /old/inner/x.txt 25")) << changes.all;
    EXPECT_FALSE(changes.Has("changed /old/inner/x.txt 6")) << changes.all;
    size_t changed = 0;
    for (size_t at = 0; (at = changes.all.find("changed ", at)) != std::string::npos; ++at)
        ++changed;
    EXPECT_LT(changed, 20u) << changes.all;
    WriteText(Path("sub/f.txt"), "f");
    ASSERT_TRUE(WaitForReport(&changes, "added /sub f.txt")) << changes.all;
    ASSERT_EQ(rename(Path("sub/f.txt").c_str(), Path("sub/g.txt").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "added /sub g.txt")) << changes.all;
    EXPECT_TRUE(changes.Has("removed /sub f.txt")) << changes.all;
    ASSERT_EQ(rename(Path("old").c_str(), Path("new").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "added / new")) << changes.all;
    EXPECT_TRUE(changes.Has("removed / old"));
    WriteText(Path("new/inner/y.txt"), "y");
    ASSERT_TRUE(WaitForReport(&changes, "added /new/inner y.txt")) << changes.all;
    // A folder moved out of the tree is no longer watched.
    ASSERT_EQ(rename(Path("new").c_str(), (base_ + "/outside/new").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "removed / new")) << changes.all;
    WriteText(base_ + "/outside/new/inner/z.txt", "z");

    // The protocol's own changes are not reported. Events come in order: once
    // another program's change is reported, every earlier one has been seen.
    changes.all.clear();
    StringSource source(RandomBytes(100000));
    ASSERT_EQ(Upload("/", Record("mine.txt", 100000), &source), SUCCESS);
    ASSERT_EQ(protocol_->SetItemTime("/mine.txt", 0, 0, 1704438489, nullptr), SUCCESS);
    _FS_FILE_V2 record = Record("ownfolder");
    ASSERT_EQ(protocol_->CreateFolder("/", &record, nullptr), SUCCESS);
    record.name = "renamed.txt";
    ASSERT_EQ(protocol_->RenameItem("/mine.txt", "/", &record, nullptr), SUCCESS);
    ASSERT_EQ(protocol_->MoveItem("/renamed.txt", "/ownfolder", &record, nullptr), SUCCESS);
    record.key = "/ownfolder";
    ASSERT_EQ(protocol_->DeleteFolder(&record, nullptr), SUCCESS);
    WriteText(Path("sentinel"), "s");
    ASSERT_TRUE(WaitForReport(&changes, "added / sentinel")) << changes.all;
    EXPECT_EQ(changes.all, "added / sentinel\n");
}

FaultList Faults(const std::string& text) {
    FaultList faults;
    Status status = ParseFaultList(text, &faults);
    EXPECT_TRUE(status.ok()) << status.message();
    return faults;
}

std::string Refusal(const std::string& text) {
    FaultList faults;
    Status status = ParseFaultList(text, &faults);
    EXPECT_FALSE(status.ok()) << text;
    return status.message();
}

// The fault remote wrapped around the local one.
class FaultProtocolTest : public LocalProtocolTest {
  protected:
    std::shared_ptr<FaultProtocol> Wrap(const std::string& text) {
        return std::make_shared<FaultProtocol>(protocol_, Faults(text), std::chrono::seconds(30),
                                               nullptr, nullptr);
    }
    // Which of `calls` listings of the root fail.
    static std::vector<int> FailingLists(IProtocol_V2& protocol, int calls) {
        std::vector<int> failing;
        for (int i = 0; i < calls; ++i) {
            ListRecorder list;
            if (protocol.ListFolder("/", &list, nullptr) != SUCCESS) failing.push_back(i);
        }
        return failing;
    }
};

TEST(FaultListTest, ParsesItemsAndRefusesBadOnesByName) {
    const FaultList faults = Faults(
        "all=0.1,upload=0.3:SOCK_CONNECTION_REFUSED,latency=20ms,latency=get:2s,"
        "hang=list,seed=42");
    EXPECT_EQ(faults.seed, 42u);
    EXPECT_DOUBLE_EQ(faults.Of(FaultOp::kUpload).fraction, 0.3);
    EXPECT_EQ(faults.Of(FaultOp::kUpload).error, SOCK_CONNECTION_REFUSED);
    EXPECT_DOUBLE_EQ(faults.Of(FaultOp::kSetTime).fraction, 0.1);
    EXPECT_EQ(faults.Of(FaultOp::kSetTime).error, SOCK_REMOTE_HOST_CLOSED);
    EXPECT_EQ(faults.Of(FaultOp::kMove).latency, std::chrono::milliseconds(20));
    EXPECT_EQ(faults.Of(FaultOp::kGet).latency, std::chrono::milliseconds(2000));
    EXPECT_TRUE(faults.Of(FaultOp::kList).hang);
    EXPECT_FALSE(faults.Of(FaultOp::kGet).hang);
    // Later items win.
    EXPECT_DOUBLE_EQ(Faults("upload=0.5,all=0").Of(FaultOp::kUpload).fraction, 0);

    EXPECT_NE(Refusal("upload=1.5").find("'upload=1.5'"), std::string::npos);
    EXPECT_NE(Refusal("upload=0.3:NO_SUCH").find("NO_SUCH"), std::string::npos);
    EXPECT_NE(Refusal("upload=0.3:SUCCESS").find("SUCCESS"), std::string::npos);
    EXPECT_NE(Refusal("copy=0.1").find("known: list, get"), std::string::npos);
    for (const char* bad : {"", "upload", "=0.1", "upload=0.1,", "latency=5", "latency=-1ms",
                            "latency=2h", "hang=all:1s", "seed=x", "seed=-1", "upload=0.1x"}) {
        Refusal(bad);
    }
}

TEST(FaultListTest, RemoteArgumentsSplitWhereTheWrappedRemoteBegins) {
    RemoteArgument argument;
    Status status =
        ParseRemote("fault:upload=0.3:SOCK_TIMEOUT,seed=7:fault:list=1:local:/srv/x", &argument);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(argument.scheme->name, std::string("fault"));
    std::string faults;
    std::string remote;
    const auto isScheme = [](const std::string& name) { return FindRemoteScheme(name) != nullptr; };
    ASSERT_TRUE(SplitFaultLocation(argument.location, isScheme, &faults, &remote));
    EXPECT_EQ(faults, "upload=0.3:SOCK_TIMEOUT,seed=7");
    EXPECT_EQ(remote, "fault:list=1:local:/srv/x");

    for (const char* bad : {"fault:upload=0.3", "fault:upload=2:local:/x", "fault:upload=1:ftp:/x",
                            "fault:upload=1:fault:list=x:local:/x"}) {
        status = ParseRemote(bad, &argument);
        EXPECT_FALSE(status.ok()) << bad;
        EXPECT_EQ(status.message().find('\n'), std::string::npos);
    }
}

TEST_F(FaultProtocolTest, FailsTheChosenShareOfCallsTheSameWayForTheSameSeed) {
    auto protocol = Wrap("list=0.3:SOCK_CONNECTION_REFUSED,seed=7");
    void* cookie = nullptr;
    ListRecorder list;
    AERROR code = SUCCESS;
    while (code == SUCCESS)
        code = protocol->ListFolder("/", &list, &cookie);
    EXPECT_EQ(code, SOCK_CONNECTION_REFUSED);
    char text[256] = "";
    protocol->DescribeCookie(cookie, text, sizeof text);
    EXPECT_EQ(std::string(text), "injected fault: list of / failed (SOCK_CONNECTION_REFUSED)");
    protocol->ReleaseCookie(cookie);  // its own object: the local remote never sees it

    const std::vector<int> failing = FailingLists(*Wrap("list=0.3,seed=7"), 1000);
    EXPECT_GT(failing.size(), 250u);
    EXPECT_LT(failing.size(), 350u);
    EXPECT_EQ(FailingLists(*Wrap("list=0.3,seed=7"), 1000), failing);
    EXPECT_NE(FailingLists(*Wrap("list=0.3,seed=8"), 1000), failing);
    EXPECT_TRUE(FailingLists(*Wrap("list=0,upload=1"), 50).empty());

    // From four threads at once, the first 1000 draws are still the same ones.
    auto shared = Wrap("list=0.3,seed=7");
    std::atomic<size_t> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] { failures += FailingLists(*shared, 250).size(); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), failing.size());
}

TEST_F(FaultProtocolTest, AFailedUploadNeverLeavesAPartialFileUnderTheName) {
    std::ofstream(root_ + "/kept.txt") << "old content";
    auto protocol = Wrap("upload=1:SOCK_TIMEOUT,seed=5");
    const std::string data(300000, 'x');
    int partWay = 0;
    int atOnce = 0;
    for (int i = 0; i < 20; ++i) {
        StringSource source(data);
        _FS_FILE_V2 record = Record(i % 2 == 0 ? "kept.txt" : "new.txt", data.size());
        void* cookie = nullptr;
        ASSERT_EQ(protocol->UploadItem("/", std::make_shared<_FS_HANDLE>(), &source, &record,
                                       nullptr, &cookie),
                  SOCK_TIMEOUT);
        protocol->ReleaseCookie(cookie);
        EXPECT_LT(source.given, static_cast<int64_t>(data.size()));
        (source.given > 0 ? partWay : atOnce)++;
    }
    EXPECT_GT(partWay, 0);
    EXPECT_GT(atOnce, 0);
    EXPECT_EQ(ReadText(root_ + "/kept.txt"), "old content");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_))
        names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"kept.txt"});
}

}  // namespace
