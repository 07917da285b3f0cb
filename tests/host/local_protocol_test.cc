// The local-folder remote, driven through IProtocol_V2 the way the library
// drives it, on a scratch folder that other "programs" (the test itself)
// change behind its back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "remotes/local_protocol.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kTempPrefix = ".skarvo-upload-";

// An upload source serving `data`, at most `maxPerRead` bytes a call. It can
// fail at an offset, end early, and run a check before each read.
class StringSource : public ICacheIO {
  public:
    explicit StringSource(std::string data) : data_(std::move(data)) {}

    AERROR Read(_READDATA* request) override {
        handles.push_back(request->handle);
        if (beforeRead) beforeRead(request->offset);
        if (failAt >= 0 && request->offset >= failAt) return FAILED;
        const int64_t end = std::min<int64_t>(data_.size(), endAt < 0 ? data_.size() : endAt);
        const int64_t available = std::max<int64_t>(0, end - request->offset);
        const int64_t count =
            std::min<int64_t>({available, static_cast<int64_t>(request->size), maxPerRead});
        if (count > 0) memcpy(request->buffer, data_.data() + request->offset, count);
        request->read = count;
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA*) override { return NOT_SUPPORTED; }

    int64_t maxPerRead = 1 << 30;
    int64_t failAt = -1;  // Read fails from this offset on
    int64_t endAt = -1;   // the data ends here
    std::function<void(int64_t)> beforeRead;
    std::vector<std::shared_ptr<_FS_HANDLE>> handles;

  private:
    std::string data_;
};

class ListRecorder : public IFileList {
  public:
    AERROR AddFile(const _FS_FILE_V2* record) override {
        records[record->name] = *record;
        return SUCCESS;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& [name, record] : records)
            names.push_back(name);
        return names;
    }
    std::map<std::string, _FS_FILE_V2> records;
};

// Collects change reports as texts: "added /docs a.txt", "removed / b",
// "changed /a.txt 12" (with the size), "refresh /".
class ChangeRecorder : public IFileChanges {
  public:
    AERROR Added(const char* key, _FS_FILE_V2* record) override {
        reports.push_back(std::string("added ") + key + " " + record->name);
        return SUCCESS;
    }
    AERROR Removed(const char* key, const char* name) override {
        reports.push_back(std::string("removed ") + key + " " + name);
        return SUCCESS;
    }
    AERROR Changed(const char* key, _FS_FILE_V2* record) override {
        reports.push_back(std::string("changed ") + key + " " + std::to_string(record->size));
        return SUCCESS;
    }
    AERROR Refresh(const char* key) override {
        reports.push_back(std::string("refresh ") + key);
        return SUCCESS;
    }
    bool Has(const std::string& report) const {
        return std::find(reports.begin(), reports.end(), report) != reports.end();
    }
    std::string All() const {
        std::string all;
        for (const std::string& report : reports)
            all += report + "\n";
        return all;
    }
    std::vector<std::string> reports;
};

// Collects downloaded data; can close the handle after some pieces.
class FetchRecorder : public IFetchCallback {
  public:
    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        if (offset != expectedOffset) contiguous = false;
        expectedOffset = offset + size;
        this->data.append(data, size);
        *written = size;
        if (++pieces == closeAfter && handle) handle->state = HANDLE_STATE_CLOSED;
        return SUCCESS;
    }
    long long expectedOffset = 0;
    bool contiguous = true;
    std::string data;
    int pieces = 0;
    int closeAfter = -1;
    std::shared_ptr<_FS_HANDLE> handle;
};

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return text;
}

class LocalProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char base[] = "/tmp/local_protocol_test.XXXXXX";
        ASSERT_NE(mkdtemp(base), nullptr);
        base_ = base;
        root_ = base_ + "/remote";
        fs::create_directories(root_);
        fs::create_directories(base_ + "/outside");
        WriteFile(base_ + "/outside/secret.txt", "secret");
        std::string error;
        protocol_ = LocalProtocol::Create(root_, &error);
        ASSERT_TRUE(protocol_) << error;
    }
    void TearDown() override {
        protocol_.reset();
        fs::remove_all(base_);
    }

    std::string Path(const std::string& relative) const { return root_ + "/" + relative; }
    static void WriteFile(const std::string& path, const std::string& content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string ReadFile(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Every name in a folder of the scratch tree, temporary files included.
    std::vector<std::string> RawNames(const std::string& relative = "") const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(Path(relative))) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    bool HasTemporaryFiles() const {
        for (const auto& entry : fs::recursive_directory_iterator(root_)) {
            if (entry.path().filename().string().rfind(kTempPrefix, 0) == 0) return true;
        }
        return false;
    }

    // The code of a failing call, with its cookie's text checked and released.
    AERROR Failure(const std::function<AERROR(void**)>& call, const std::string& textPart = "") {
        void* cookie = nullptr;
        const AERROR code = call(&cookie);
        EXPECT_NE(code, SUCCESS);
        EXPECT_NE(cookie, nullptr);
        char text[512];
        EXPECT_EQ(protocol_->DescribeCookie(cookie, text, sizeof text), SUCCESS);
        EXPECT_NE(std::string(text).find(textPart), std::string::npos) << text;
        protocol_->ReleaseCookie(cookie);
        return code;
    }
    AERROR GetItem(const std::string& key, _FS_FILE_V2* record = nullptr) {
        _FS_FILE_V2 scratch;
        void* cookie = nullptr;
        const AERROR code = protocol_->GetItem(key.c_str(), record ? record : &scratch, &cookie);
        protocol_->ReleaseCookie(cookie);
        return code;
    }
    AERROR Upload(const std::string& parentKey, _FS_FILE_V2* record, StringSource* source,
                  const _TRANSFERPROGRESS* progress = nullptr) {
        void* cookie = nullptr;
        const AERROR code = protocol_->UploadItem(parentKey.c_str(), std::make_shared<_FS_HANDLE>(),
                                                  source, record, progress, &cookie);
        protocol_->ReleaseCookie(cookie);
        return code;
    }
    // Polls GetChanges until `report` has come; the limit only guards against a hang.
    bool WaitForReport(ChangeRecorder* changes, const std::string& report) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!changes->Has(report)) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            void* cookie = nullptr;
            EXPECT_EQ(protocol_->GetChanges(changes, &cookie), SUCCESS);
            protocol_->ReleaseCookie(cookie);
        }
        return true;
    }

    std::string base_;
    std::string root_;
    std::shared_ptr<LocalProtocol> protocol_;
};

TEST_F(LocalProtocolTest, CreateChecksTheFolderAndNamesIt) {
    std::string error;
    EXPECT_FALSE(LocalProtocol::Create(base_ + "/missing", &error));
    EXPECT_EQ(error, "remote folder " + base_ + "/missing does not exist");
    WriteFile(base_ + "/plain", "x");
    EXPECT_FALSE(LocalProtocol::Create(base_ + "/plain", &error));
    EXPECT_NE(error.find("is not a directory"), std::string::npos) << error;

    // Reached through a link, the folder is still named by its real path.
    fs::create_directory_symlink(root_, base_ + "/alias");
    auto aliased = LocalProtocol::Create(base_ + "/alias/", &error);
    ASSERT_TRUE(aliased) << error;
    char identity[4096];
    ASSERT_EQ(aliased->GetIdentity(identity, sizeof identity), SUCCESS);
    EXPECT_EQ(std::string(identity), "local:" + fs::canonical(root_).string());
    EXPECT_EQ(aliased->GetIdentity(identity, 4), INSUFFICIENT_BUFFER);

    char key[8];
    unsigned long length = sizeof key;
    ASSERT_EQ(protocol_->GetRootKey(key, &length), SUCCESS);
    EXPECT_EQ(std::string(key), "/");
    EXPECT_EQ(length, 1u);
    EXPECT_EQ(protocol_->ChangeReportProblem(), "");

    unsigned long long total = 0, used = 0;
    ASSERT_EQ(protocol_->GetQuota(&total, &used), SUCCESS);
    struct statvfs sv {};
    ASSERT_EQ(statvfs(root_.c_str(), &sv), 0);
    EXPECT_EQ(total, static_cast<unsigned long long>(sv.f_blocks) * sv.f_frsize);
    EXPECT_LE(used, total);
}

TEST_F(LocalProtocolTest, ListsFilesAndFoldersWithTheirRecords) {
    WriteFile(Path("a.txt"), "hello");
    fs::create_directory(Path("docs"));
    WriteFile(Path("docs/b.txt"), "bb");
    WriteFile(Path(std::string(kTempPrefix) + "left"), "from an interrupted upload");
    // 2005-01-01, then 2024-01-05T07:08:09; a zero leaves a time as it is.
    ASSERT_EQ(protocol_->SetItemTime("/a.txt", 0, 1104537600, 1, nullptr), SUCCESS);
    ASSERT_EQ(protocol_->SetItemTime("/a.txt", 0, 0, 1704438489, nullptr), SUCCESS);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->SetItemTime("/gone", 0, 1, 1, c); }),
              FILE_NOT_FOUND);

    ListRecorder list;
    ASSERT_EQ(protocol_->ListFolder("/", &list, nullptr), SUCCESS);
    EXPECT_EQ(list.Names(), (std::vector<std::string>{"a.txt", "docs"}));
    const _FS_FILE_V2& file = list.records["a.txt"];
    EXPECT_EQ(file.key, "/a.txt");
    EXPECT_EQ(file.attributes, FILE_ATTRIBUTE_FILE);
    EXPECT_EQ(file.size, 5);
    EXPECT_EQ(file.modifyTime, "2024-01-05T07:08:09.000Z");
    EXPECT_EQ(file.accessTime, "2005-01-01T00:00:00.000Z");
    EXPECT_EQ(file.createTime.size(), file.modifyTime.size());
    EXPECT_EQ(list.records["docs"].key, "/docs");
    EXPECT_EQ(list.records["docs"].attributes, FILE_ATTRIBUTE_FOLDER);

    ListRecorder docs;
    ASSERT_EQ(protocol_->ListFolder("/docs", &docs, nullptr), SUCCESS);
    ASSERT_EQ(docs.Names(), std::vector<std::string>{"b.txt"});
    _FS_FILE_V2 record;
    ASSERT_EQ(GetItem("/docs/b.txt", &record), SUCCESS);
    EXPECT_EQ(record.key, docs.records["b.txt"].key);
    EXPECT_EQ(record.name, "b.txt");
    EXPECT_EQ(record.size, 2);

    // Failures map to codes, with cookies that tell why.
    EXPECT_EQ(Failure([&](void** c) { return protocol_->GetItem("/gone.txt", &record, c); },
                      "/gone.txt: No such file or directory"),
              FILE_NOT_FOUND);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->GetItem("/nodir/x", &record, c); }),
              PATH_NOT_FOUND);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->ListFolder("/a.txt", &docs, c); }),
              INVALID_DIRECTORY);
    // A cookie's text is cut to the buffer it is described into.
    void* cookie = nullptr;
    ASSERT_EQ(protocol_->GetItem("/gone.txt", &record, &cookie), FILE_NOT_FOUND);
    char small[4];
    EXPECT_EQ(protocol_->DescribeCookie(cookie, small, sizeof small), INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(small), "/go");
    protocol_->ReleaseCookie(cookie);
}

TEST_F(LocalProtocolTest, RefusesKeysAndNamesThatCouldLeaveTheFolder) {
    WriteFile(Path("a.txt"), "hello");
    fs::create_directory(Path("docs"));
    FetchRecorder fetch;
    ListRecorder list;
    for (const std::string& key :
         std::vector<std::string>{"/../outside/secret.txt", "/docs/../a.txt", "a.txt", "",
                                  "/docs//a.txt", "/docs/", "/./a.txt"}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(GetItem(key), INVALID_NAME);
        EXPECT_EQ(Failure([&](void** c) {
                      return protocol_->Download(key.c_str(), 0, 10, nullptr, &fetch, c);
                  }),
                  INVALID_NAME);
        EXPECT_EQ(Failure([&](void** c) { return protocol_->ListFolder(key.c_str(), &list, c); }),
                  INVALID_NAME);
    }
    EXPECT_TRUE(fetch.data.empty());

    for (const std::string& name : std::vector<std::string>{
             "..", ".", "", "a/b", std::string("a\0b", 3), std::string(kTempPrefix) + "x"}) {
        SCOPED_TRACE(name);
        if (name.find('\0') == std::string::npos) {
            EXPECT_FALSE(protocol_->IsValidName(name.c_str()));
        }
        _FS_FILE_V2 record;
        record.name = name;
        EXPECT_EQ(Failure([&](void** c) { return protocol_->CreateFolder("/docs", &record, c); }),
                  INVALID_NAME);
        StringSource source("data");
        record.size = 4;
        EXPECT_EQ(Upload("/docs", &record, &source), INVALID_NAME);
        EXPECT_EQ(
            Failure([&](void** c) { return protocol_->RenameItem("/a.txt", "/", &record, c); }),
            INVALID_NAME);
    }
    EXPECT_TRUE(protocol_->IsValidName("ok name.txt"));
    EXPECT_EQ(RawNames(), (std::vector<std::string>{"a.txt", "docs"}));
    EXPECT_TRUE(fs::is_empty(Path("docs")));
    EXPECT_EQ(ReadFile(base_ + "/outside/secret.txt"), "secret");
}

TEST_F(LocalProtocolTest, SymbolicLinksAreNeitherListedNorFollowed) {
    WriteFile(Path("a.txt"), "hello");
    fs::create_directory_symlink(base_ + "/outside", Path("escape"));
    fs::create_symlink(base_ + "/outside/secret.txt", Path("secret.txt"));
    fs::create_symlink("a.txt", Path("inner"));  // even links that stay inside
    fs::create_directory(Path("trash"));
    fs::create_directory_symlink(base_ + "/outside", Path("trash/escape"));

    ListRecorder list;
    ASSERT_EQ(protocol_->ListFolder("/", &list, nullptr), SUCCESS);
    EXPECT_EQ(list.Names(), (std::vector<std::string>{"a.txt", "trash"}));

    FetchRecorder fetch;
    _FS_FILE_V2 record;
    EXPECT_EQ(GetItem("/escape"), ACCESS_DENIED);
    EXPECT_EQ(GetItem("/escape/secret.txt"), ACCESS_DENIED);
    EXPECT_EQ(GetItem("/inner"), ACCESS_DENIED);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->ListFolder("/escape", &list, c); },
                      "symbolic link"),
              ACCESS_DENIED);
    EXPECT_EQ(Failure([&](void** c) {
                  return protocol_->Download("/secret.txt", 0, 6, nullptr, &fetch, c);
              }),
              ACCESS_DENIED);
    EXPECT_TRUE(fetch.data.empty());

    StringSource source("overwritten");
    record.name = "new.txt";
    record.size = 11;
    EXPECT_EQ(Upload("/escape", &record, &source), ACCESS_DENIED);
    record = _FS_FILE_V2();
    record.name = "secret.txt";  // the link's own name
    record.size = 11;
    EXPECT_EQ(Upload("/", &record, &source), ACCESS_DENIED);
    record.key = "/escape";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->DeleteFolder(&record, c); }),
              ACCESS_DENIED);
    record.key = "/escape/secret.txt";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->DeleteItem(&record, c); }), ACCESS_DENIED);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->SetItemTime("/secret.txt", 0, 1, 1, c); }),
              ACCESS_DENIED);

    // Deleting a folder removes a link inside it, never what it points to.
    record.key = "/trash";
    EXPECT_EQ(protocol_->DeleteFolder(&record, nullptr), SUCCESS);
    EXPECT_FALSE(fs::exists(Path("trash")));
    EXPECT_TRUE(fs::is_symlink(Path("escape")));
    EXPECT_EQ(std::distance(fs::directory_iterator(base_ + "/outside"), fs::directory_iterator()),
              1);
    EXPECT_EQ(ReadFile(base_ + "/outside/secret.txt"), "secret");
}

TEST_F(LocalProtocolTest, DownloadsRangesCutAtTheEnd) {
    const std::string content = Pattern(3 * 1024 * 1024 + 123);
    WriteFile(Path("big.bin"), content);
    const long long size = content.size();

    FetchRecorder whole;
    ASSERT_EQ(protocol_->Download("/big.bin", 0, size, nullptr, &whole, nullptr), SUCCESS);
    EXPECT_TRUE(whole.data == content);
    EXPECT_TRUE(whole.contiguous);
    EXPECT_GT(whole.pieces, 1);

    FetchRecorder middle;
    middle.expectedOffset = 1000;
    ASSERT_EQ(protocol_->Download("/big.bin", 1000, 5000, nullptr, &middle, nullptr), SUCCESS);
    EXPECT_TRUE(middle.contiguous);
    EXPECT_EQ(middle.data, content.substr(1000, 5000));

    FetchRecorder tail;
    tail.expectedOffset = size - 10;
    ASSERT_EQ(protocol_->Download("/big.bin", size - 10, 100, nullptr, &tail, nullptr), SUCCESS);
    EXPECT_EQ(tail.data, content.substr(size - 10));

    FetchRecorder past;
    ASSERT_EQ(protocol_->Download("/big.bin", size + 5, 100, nullptr, &past, nullptr), SUCCESS);
    EXPECT_TRUE(past.data.empty());

    fs::create_directory(Path("dir"));
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->Download("/dir", 0, 1, nullptr, &past, c); }),
        ACCESS_DENIED);

    // A download stops once its handle closes, and a closed handle gets none.
    auto handle = std::make_shared<_FS_HANDLE>();
    FetchRecorder stopped;
    stopped.handle = handle;
    stopped.closeAfter = 1;
    EXPECT_EQ(Failure([&](void** c) {
                  return protocol_->Download("/big.bin", 0, size, handle, &stopped, c);
              }),
              READ_CANCELED);
    EXPECT_EQ(stopped.pieces, 1);
    FetchRecorder none;
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->Download("/big.bin", 0, 10, handle, &none, c); }),
        READ_CANCELED);
    EXPECT_TRUE(none.data.empty());
}

TEST_F(LocalProtocolTest, UploadStoresNewFilesAndReportsProgress) {
    fs::create_directory(Path("docs"));
    const std::string content = Pattern(2 * 1024 * 1024 + 17);
    StringSource source(content);
    source.maxPerRead = 300000;  // the source hands out less than asked
    std::vector<std::pair<unsigned long long, unsigned long long>> reports;
    _TRANSFERPROGRESS progress;
    progress.context = &reports;
    progress.callback = [](unsigned long long done, unsigned long long total, double,
                           void* context) {
        static_cast<decltype(reports)*>(context)->emplace_back(done, total);
    };
    _FS_FILE_V2 record;
    record.name = "new.bin";
    record.size = content.size();
    auto handle = std::make_shared<_FS_HANDLE>();
    ASSERT_EQ(protocol_->UploadItem("/docs", handle, &source, &record, &progress, nullptr),
              SUCCESS);

    EXPECT_TRUE(ReadFile(Path("docs/new.bin")) == content);
    EXPECT_EQ(record.key, "/docs/new.bin");
    EXPECT_EQ(record.size, static_cast<int64_t>(content.size()));
    for (const auto& seen : source.handles)
        EXPECT_EQ(seen, handle);
    ASSERT_FALSE(reports.empty());
    const unsigned long long total = content.size();
    EXPECT_EQ(reports.back(), std::make_pair(total, total));
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_FALSE(HasTemporaryFiles());

    // An empty file is stored too.
    StringSource empty("");
    _FS_FILE_V2 nothing;
    nothing.name = "empty";
    ASSERT_EQ(Upload("/", &nothing, &empty), SUCCESS);
    EXPECT_TRUE(fs::is_regular_file(Path("empty")));
    EXPECT_EQ(fs::file_size(Path("empty")), 0u);

    // The key decides which item an upload overwrites; its permissions stay.
    ASSERT_EQ(chmod(Path("docs/new.bin").c_str(), 0640), 0);
    StringSource shorter("new");
    _FS_FILE_V2 byKey;
    byKey.key = "/docs/new.bin";
    byKey.name = "renamed-on-the-volume.txt";
    byKey.size = 3;
    ASSERT_EQ(Upload("/docs", &byKey, &shorter), SUCCESS);
    EXPECT_EQ(ReadFile(Path("docs/new.bin")), "new");
    EXPECT_EQ(byKey.name, "new.bin");
    struct stat st {};
    ASSERT_EQ(stat(Path("docs/new.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    // Without a key, an existing file of the name is replaced as well.
    StringSource again("again");
    _FS_FILE_V2 byName;
    byName.name = "new.bin";
    byName.size = 5;
    ASSERT_EQ(Upload("/docs", &byName, &again), SUCCESS);
    EXPECT_EQ(ReadFile(Path("docs/new.bin")), "again");
    EXPECT_EQ(RawNames("docs"), std::vector<std::string>{"new.bin"});

    _FS_FILE_V2 onFolder;
    onFolder.name = "docs";
    onFolder.size = 4;
    StringSource data("data");
    EXPECT_EQ(Upload("/", &onFolder, &data), ALREADY_EXISTS);
    EXPECT_TRUE(fs::is_directory(Path("docs")));
}

TEST_F(LocalProtocolTest, FailedUploadsLeaveTheOriginalAndNoTemporaryFile) {
    WriteFile(Path("doc.txt"), "original");
    const std::string content = Pattern(3 * 1024 * 1024);
    for (const bool endEarly : {false, true}) {
        SCOPED_TRACE(endEarly ? "source ends early" : "source fails");
        StringSource source(content);
        if (endEarly) {
            source.endAt = 2 * 1024 * 1024;
        } else {
            source.failAt = 2 * 1024 * 1024;
        }
        bool checkedMidway = false;
        source.beforeRead = [&](int64_t offset) {
            if (offset == 0) return;
            // Half written: readers still see the whole old file.
            checkedMidway = true;
            EXPECT_EQ(ReadFile(Path("doc.txt")), "original");
            EXPECT_TRUE(HasTemporaryFiles());
            ListRecorder list;
            EXPECT_EQ(protocol_->ListFolder("/", &list, nullptr), SUCCESS);
            EXPECT_EQ(list.Names(), std::vector<std::string>{"doc.txt"});
        };
        _FS_FILE_V2 record;
        record.key = "/doc.txt";
        record.name = "doc.txt";
        record.size = content.size();
        EXPECT_EQ(Failure(
                      [&](void** c) {
                          return protocol_->UploadItem("/", nullptr, &source, &record, nullptr, c);
                      },
                      endEarly ? "ended after" : ""),
                  endEarly ? FILE_READ_FAILED : FAILED);
        EXPECT_TRUE(checkedMidway);
        EXPECT_EQ(ReadFile(Path("doc.txt")), "original");
        EXPECT_EQ(RawNames(), std::vector<std::string>{"doc.txt"});
    }
}

TEST_F(LocalProtocolTest, ConcurrentUploadsOfOneFileEachLandWhole) {
    constexpr int kThreads = 6;
    constexpr size_t kSize = 256 * 1024;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            StringSource source(std::string(kSize, static_cast<char>('A' + i)));
            source.maxPerRead = 4096;
            _FS_FILE_V2 record;
            record.name = "same.bin";
            record.size = kSize;
            void* cookie = nullptr;
            if (protocol_->UploadItem("/", nullptr, &source, &record, nullptr, &cookie) !=
                SUCCESS) {
                ++failures;
            }
            protocol_->ReleaseCookie(cookie);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    const std::string content = ReadFile(Path("same.bin"));
    ASSERT_EQ(content.size(), kSize);
    EXPECT_EQ(content, std::string(kSize, content[0]));
    EXPECT_EQ(RawNames(), std::vector<std::string>{"same.bin"});
}

TEST_F(LocalProtocolTest, RenamesMovesCreatesAndDeletes) {
    WriteFile(Path("a.txt"), "A");
    WriteFile(Path("taken.txt"), "T");
    _FS_FILE_V2 record;

    record.name = "folder";
    ASSERT_EQ(protocol_->CreateFolder("/", &record, nullptr), SUCCESS);
    EXPECT_EQ(record.key, "/folder");
    EXPECT_EQ(record.attributes, FILE_ATTRIBUTE_FOLDER);
    record.name = "x";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->CreateFolder("/nope", &record, c); }),
              PATH_NOT_FOUND);
    record.name = "a.txt";
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->CreateFolder("/", &record, c); }, "File exists"),
        ALREADY_EXISTS);

    record.name = "b.txt";
    ASSERT_EQ(protocol_->RenameItem("/a.txt", "/", &record, nullptr), SUCCESS);
    EXPECT_EQ(record.key, "/b.txt");
    EXPECT_EQ(ReadFile(Path("b.txt")), "A");
    EXPECT_FALSE(fs::exists(Path("a.txt")));
    record.name = "taken.txt";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->RenameItem("/b.txt", "/", &record, c); }),
              ALREADY_EXISTS);
    EXPECT_EQ(ReadFile(Path("taken.txt")), "T");
    record.name = "c.txt";
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->RenameItem("/b.txt", "/folder", &record, c); }),
        INVALID_PARAMETER);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->RenameItem("/", "/", &record, c); }),
              ACCESS_DENIED);

    // A file moves keeping its name and replaces a file of that name.
    ASSERT_EQ(protocol_->MoveItem("/b.txt", "/folder", &record, nullptr), SUCCESS);
    EXPECT_EQ(record.key, "/folder/b.txt");
    EXPECT_EQ(record.name, "b.txt");
    WriteFile(Path("b.txt"), "newer");
    ASSERT_EQ(protocol_->MoveItem("/b.txt", "/folder", &record, nullptr), SUCCESS);
    EXPECT_EQ(ReadFile(Path("folder/b.txt")), "newer");
    EXPECT_EQ(Failure([&](void** c) { return protocol_->MoveItem("/folder", "/", &record, c); }),
              INVALID_PARAMETER);

    // A folder moves with everything in it, never into itself or onto a name.
    fs::create_directories(Path("dest/folder-not"));
    fs::create_directories(Path("folder/sub"));
    ASSERT_EQ(protocol_->MoveFolder("/folder", "/dest", &record, nullptr), SUCCESS);
    EXPECT_EQ(record.key, "/dest/folder");
    EXPECT_EQ(ReadFile(Path("dest/folder/b.txt")), "newer");
    EXPECT_EQ(Failure([&](void** c) {
                  return protocol_->MoveFolder("/dest", "/dest/folder/sub", &record, c);
              }),
              INVALID_PARAMETER);
    fs::create_directory(Path("folder"));
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->MoveFolder("/dest/folder", "/", &record, c); }),
        ALREADY_EXISTS);
    EXPECT_EQ(
        Failure([&](void** c) { return protocol_->MoveFolder("/taken.txt", "/dest", &record, c); }),
        INVALID_PARAMETER);

    // Deleting: files with DeleteItem, folders with everything in them.
    WriteFile(Path("dest/folder/sub/deep.txt"), "deep");
    record.key = "/dest";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->DeleteItem(&record, c); }),
              INVALID_PARAMETER);
    ASSERT_EQ(protocol_->DeleteFolder(&record, nullptr), SUCCESS);
    EXPECT_FALSE(fs::exists(Path("dest")));
    record.key = "/taken.txt";
    ASSERT_EQ(protocol_->DeleteItem(&record, nullptr), SUCCESS);
    EXPECT_EQ(Failure([&](void** c) { return protocol_->DeleteItem(&record, c); }), FILE_NOT_FOUND);
    record.key = "/";
    EXPECT_EQ(Failure([&](void** c) { return protocol_->DeleteFolder(&record, c); }),
              ACCESS_DENIED);
    EXPECT_EQ(RawNames(), std::vector<std::string>{"folder"});
}

TEST_F(LocalProtocolTest, ReportsFileChangesMadeByOtherPrograms) {
    ChangeRecorder changes;
    WriteFile(Path("ext.txt"), "12345");
    ASSERT_TRUE(WaitForReport(&changes, "added / ext.txt")) << changes.All();

    // Twenty writes raise some forty events before anyone asks; what is
    // delivered then is a few reports carrying the final state.
    for (int i = 0; i < 20; ++i)
        std::ofstream(Path("ext.txt"), std::ios::app) << "x";
    WriteFile(Path("sentinel"), "s");
    ASSERT_TRUE(WaitForReport(&changes, "added / sentinel")) << changes.All();
    const auto changed =
        std::count_if(changes.reports.begin(), changes.reports.end(),
                      [](const std::string& r) { return r.rfind("changed", 0) == 0; });
    EXPECT_GE(changed, 1) << changes.All();
    EXPECT_LT(changed, 20) << changes.All();
    EXPECT_TRUE(changes.Has("changed /ext.txt 25")) << changes.All();
    EXPECT_FALSE(changes.Has("changed /ext.txt 6")) << changes.All();

    ASSERT_EQ(rename(Path("ext.txt").c_str(), Path("moved.txt").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "added / moved.txt")) << changes.All();
    EXPECT_TRUE(changes.Has("removed / ext.txt")) << changes.All();

    ASSERT_EQ(unlink(Path("moved.txt").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "removed / moved.txt")) << changes.All();
}

TEST_F(LocalProtocolTest, FollowsFoldersCreatedAndRenamedByOtherPrograms) {
    // Folders that exist when the protocol starts are watched at once.
    fs::create_directories(Path("old/inner"));
    std::string error;
    protocol_ = LocalProtocol::Create(root_, &error);
    ASSERT_TRUE(protocol_) << error;
    ChangeRecorder changes;
    WriteFile(Path("old/inner/x.txt"), "x");
    ASSERT_TRUE(WaitForReport(&changes, "added /old/inner x.txt")) << changes.All();

    fs::create_directory(Path("sub"));
    ASSERT_TRUE(WaitForReport(&changes, "added / sub")) << changes.All();
    WriteFile(Path("sub/f.txt"), "f");
    ASSERT_TRUE(WaitForReport(&changes, "added /sub f.txt")) << changes.All();

    ASSERT_EQ(rename(Path("old").c_str(), Path("new").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "added / new")) << changes.All();
    EXPECT_TRUE(changes.Has("removed / old"));
    WriteFile(Path("new/inner/y.txt"), "y");
    ASSERT_TRUE(WaitForReport(&changes, "added /new/inner y.txt")) << changes.All();

    // A folder moved out of the tree is no longer watched.
    ASSERT_EQ(rename(Path("new").c_str(), (base_ + "/outside/new").c_str()), 0);
    ASSERT_TRUE(WaitForReport(&changes, "removed / new")) << changes.All();
    WriteFile(base_ + "/outside/new/inner/z.txt", "z");
    ASSERT_EQ(unlink((base_ + "/outside/new/inner/z.txt").c_str()), 0);
    WriteFile(Path("sentinel"), "s");
    ASSERT_TRUE(WaitForReport(&changes, "added / sentinel")) << changes.All();
    EXPECT_EQ(changes.All().find("z.txt"), std::string::npos) << changes.All();
}

TEST_F(LocalProtocolTest, OwnChangesAreNotReportedAsRemoteChanges) {
    ChangeRecorder changes;
    StringSource source(Pattern(100000));
    _FS_FILE_V2 record;
    record.name = "mine.txt";
    record.size = 100000;
    ASSERT_EQ(Upload("/", &record, &source), SUCCESS);
    ASSERT_EQ(protocol_->SetItemTime("/mine.txt", 0, 0, 1704438489, nullptr), SUCCESS);
    record.name = "ownfolder";
    ASSERT_EQ(protocol_->CreateFolder("/", &record, nullptr), SUCCESS);
    record.name = "renamed.txt";
    ASSERT_EQ(protocol_->RenameItem("/mine.txt", "/", &record, nullptr), SUCCESS);
    ASSERT_EQ(protocol_->MoveItem("/renamed.txt", "/ownfolder", &record, nullptr), SUCCESS);
    record.key = "/ownfolder";
    ASSERT_EQ(protocol_->DeleteFolder(&record, nullptr), SUCCESS);

    // Events come in order: once another program's change is reported,
    // every event of the protocol's own changes has been seen.
    WriteFile(Path("sentinel"), "s");
    ASSERT_TRUE(WaitForReport(&changes, "added / sentinel")) << changes.All();
    EXPECT_EQ(changes.reports, (std::vector<std::string>{"added / sentinel"})) << changes.All();
}

}  // namespace
