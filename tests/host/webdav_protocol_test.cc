// The WebDAV remote driven through IProtocol_V2 the way the library drives
// it, against a private Apache server (tests/webdav/apache_fixture.sh) whose
// document root the test also changes directly, as another client would.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "remotes/webdav_protocol.h"

namespace fs = std::filesystem;

namespace {

std::string ReadText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

class StringSource : public ICacheIO {
  public:
    explicit StringSource(std::string data) : data_(std::move(data)) {}
    AERROR Read(_READDATA* request) override {
        const size_t offset = static_cast<size_t>(request->offset);
        const size_t count = std::min<size_t>(request->size, data_.size() - offset);
        memcpy(request->buffer, data_.data() + offset, count);
        request->read = static_cast<int64_t>(count);
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA*) override { return NOT_SUPPORTED; }

  private:
    std::string data_;
};

class Collector : public IFetchCallback {
  public:
    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        if (first < 0) first = offset;
        bytes.append(data, static_cast<size_t>(size));
        if (written != nullptr) *written = size;
        return SUCCESS;
    }
    long long first = -1;
    std::string bytes;
};

class Listing : public IFileList {
  public:
    AERROR AddFile(const _FS_FILE_V2* record) override {
        records[record->name] = *record;
        return SUCCESS;
    }
    std::map<std::string, _FS_FILE_V2> records;
};

class ChangeLog : public IFileChanges {
  public:
    AERROR Added(const char* key, _FS_FILE_V2* record) override {
        lines.insert(std::string("added ") + key + " " + record->name);
        return SUCCESS;
    }
    AERROR Removed(const char* key, const char* name) override {
        lines.insert(std::string("removed ") + key + " " + name);
        return SUCCESS;
    }
    AERROR Changed(const char* key, _FS_FILE_V2*) override {
        lines.insert(std::string("changed ") + key);
        return SUCCESS;
    }
    AERROR Refresh(const char* key) override {
        lines.insert(std::string("refresh ") + key);
        return SUCCESS;
    }
    std::set<std::string> lines;
};

class WebdavProtocolTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (access("/usr/sbin/apache2", X_OK) != 0) return;
        char folder[] = "/tmp/skarvo-webdav-test-XXXXXX";
        if (mkdtemp(folder) == nullptr) return;
        dir_ = folder;
        const std::string start = "bash " SKARVO_APACHE_FIXTURE " start " + dir_ + " >/dev/null";
        if (system(start.c_str()) != 0) return;
        std::ifstream env(dir_ + "/env");
        for (std::string line; std::getline(env, line);) {
            if (line.rfind("DAV_PORT=", 0) == 0) port_ = std::stoi(line.substr(9));
        }
    }
    static void TearDownTestSuite() {
        if (dir_.empty()) return;
        const std::string stop = "bash " SKARVO_APACHE_FIXTURE " stop " + dir_;
        if (port_ != 0 && system(stop.c_str()) != 0) ADD_FAILURE() << "apache did not stop";
        fs::remove_all(dir_);
    }

    void SetUp() override {
        if (port_ == 0) GTEST_SKIP() << "apache2 is not available";
        for (const char* share : {"dav", "norange"}) {
            fs::remove_all(Root(share));
            fs::create_directories(Root(share));
        }
    }

    static fs::path Root(const std::string& share) { return fs::path(dir_) / "root" / share; }

    static std::shared_ptr<WebdavProtocol> Open(const std::string& share) {
        WebdavAddress address;
        std::string error;
        EXPECT_TRUE(ParseWebdavAddress(false, "//127.0.0.1:" + std::to_string(port_) + "/" + share,
                                       &address, &error))
            << error;
        auto protocol = std::make_shared<WebdavProtocol>(address, HttpSettings());
        EXPECT_TRUE(protocol->Check(&error)) << error;
        return protocol;
    }

    static AERROR Upload(WebdavProtocol& protocol, const std::string& parent, _FS_FILE_V2* record,
                         const std::string& data) {
        StringSource source(data);
        record->size = static_cast<int64_t>(data.size());
        void* cookie = nullptr;
        const AERROR code =
            protocol.UploadItem(parent.c_str(), nullptr, &source, record, nullptr, &cookie);
        protocol.ReleaseCookie(cookie);
        return code;
    }

    static std::string dir_;
    static int port_;
};

std::string WebdavProtocolTest::dir_;
int WebdavProtocolTest::port_ = 0;

TEST_F(WebdavProtocolTest, RangedDownloadsAlsoFromAServerThatIgnoresRanges) {
    std::string data;
    for (int i = 0; i < 100000; ++i)
        data += static_cast<char>('a' + i % 26);
    for (const char* share : {"dav", "norange"}) {
        WriteText(Root(share) / "r.bin", data);
        auto protocol = Open(share);
        Collector got;
        void* cookie = nullptr;
        ASSERT_EQ(protocol->Download("/r.bin", 70000, 20000, nullptr, &got, &cookie), SUCCESS)
            << share;
        EXPECT_EQ(got.first, 70000) << share;
        EXPECT_EQ(got.bytes, data.substr(70000, 20000)) << share;
        // A range past the end delivers what there is.
        Collector tail;
        ASSERT_EQ(protocol->Download("/r.bin", 99990, 100, nullptr, &tail, &cookie), SUCCESS);
        EXPECT_EQ(tail.bytes, data.substr(99990)) << share;
    }
}

TEST_F(WebdavProtocolTest, ListingDecodesNamesAndLeavesOutTheFolderItself) {
    const std::vector<std::string> names = {"a b%#?&+.txt", "한국어", "café"};
    for (const std::string& name : names)
        WriteText(Root("dav") / name, name);
    fs::create_directory(Root("dav") / "sub dir");
    auto protocol = Open("dav");
    Listing listing;
    void* cookie = nullptr;
    ASSERT_EQ(protocol->ListFolder("/", &listing, &cookie), SUCCESS);
    ASSERT_EQ(listing.records.size(), names.size() + 1);
    for (const std::string& name : names) {
        ASSERT_EQ(listing.records.count(name), 1u) << name;
        EXPECT_EQ(listing.records[name].key, "/" + name);
        EXPECT_EQ(listing.records[name].size, static_cast<int64_t>(name.size()));
        EXPECT_FALSE(listing.records[name].extra.empty());
    }
    EXPECT_EQ(listing.records["sub dir"].attributes, FILE_ATTRIBUTE_FOLDER);
    unsigned long long total = 1;
    unsigned long long used = 1;
    ASSERT_EQ(protocol->GetQuota(&total, &used), SUCCESS);
    EXPECT_EQ(total, 0u);
    EXPECT_EQ(used, 0u);
}

TEST_F(WebdavProtocolTest, UploadsNeverOverwriteAnotherClientsChange) {
    auto protocol = Open("dav");
    _FS_FILE_V2 record;
    record.name = "c.txt";
    ASSERT_EQ(Upload(*protocol, "/", &record, "mine"), SUCCESS);
    EXPECT_EQ(record.key, "/c.txt");
    EXPECT_EQ(ReadText(Root("dav") / "c.txt"), "mine");
    // Stored again at once: the ETag the server still calls weak is waited out.
    ASSERT_EQ(Upload(*protocol, "/", &record, "mine again"), SUCCESS);
    const _FS_FILE_V2 based = record;
    sleep(1);
    WriteText(Root("dav") / "c.txt", "theirs!");
    record = based;
    EXPECT_EQ(Upload(*protocol, "/", &record, "mine, later"), SHARING_VIOLATION);
    EXPECT_EQ(ReadText(Root("dav") / "c.txt"), "theirs!");
    // A new file whose name another client took meanwhile.
    _FS_FILE_V2 fresh;
    fresh.name = "c.txt";
    EXPECT_EQ(Upload(*protocol, "/", &fresh, "new"), SHARING_VIOLATION);
    // Based on their version, it goes through.
    void* cookie = nullptr;
    ASSERT_EQ(protocol->GetItem("/c.txt", &record, &cookie), SUCCESS);
    ASSERT_EQ(Upload(*protocol, "/", &record, "merged"), SUCCESS);
    EXPECT_EQ(ReadText(Root("dav") / "c.txt"), "merged");
}

TEST_F(WebdavProtocolTest, NamespaceOperationsKeepTheirContracts) {
    WriteText(Root("dav") / "a.txt", "a");
    WriteText(Root("dav") / "b.txt", "b");
    fs::create_directories(Root("dav") / "dir" / "b.txt");
    WriteText(Root("dav") / "dir" / "a.txt", "old a");
    auto protocol = Open("dav");
    void* cookie = nullptr;
    _FS_FILE_V2 record;
    record.name = "b.txt";
    record.attributes = FILE_ATTRIBUTE_FILE;
    EXPECT_EQ(protocol->RenameItem("/a.txt", "/", &record, &cookie), ALREADY_EXISTS);
    protocol->ReleaseCookie(cookie);
    cookie = nullptr;
    EXPECT_EQ(protocol->MoveItem("/a.txt", "/dir", &record, &cookie), SUCCESS);
    EXPECT_EQ(record.key, "/dir/a.txt");
    EXPECT_EQ(ReadText(Root("dav") / "dir" / "a.txt"), "a");
    EXPECT_EQ(protocol->MoveItem("/b.txt", "/dir", &record, &cookie), ALREADY_EXISTS);
    protocol->ReleaseCookie(cookie);
    cookie = nullptr;
    record.name = "dir";
    EXPECT_EQ(protocol->CreateFolder("/", &record, &cookie), ALREADY_EXISTS);
    protocol->ReleaseCookie(cookie);
    cookie = nullptr;
    EXPECT_EQ(protocol->GetItem("/missing", &record, &cookie), FILE_NOT_FOUND);
    protocol->ReleaseCookie(cookie);
    cookie = nullptr;
    EXPECT_EQ(protocol->MoveFolder("/dir", "/dir/b.txt", &record, &cookie), INVALID_PARAMETER);
    protocol->ReleaseCookie(cookie);
    cookie = nullptr;
    record.key = "/dir";
    EXPECT_EQ(protocol->DeleteFolder(&record, &cookie), SUCCESS);
    EXPECT_FALSE(fs::exists(Root("dav") / "dir"));
}

TEST_F(WebdavProtocolTest, ChangesOfOtherClientsAreReportedAndOwnOnesAreNot) {
    WriteText(Root("dav") / "stays.txt", "1");
    WriteText(Root("dav") / "goes.txt", "1");
    auto protocol = Open("dav");
    Listing listing;
    void* cookie = nullptr;
    ASSERT_EQ(protocol->ListFolder("/", &listing, &cookie), SUCCESS);
    _FS_FILE_V2 own;
    own.name = "own.txt";
    ASSERT_EQ(Upload(*protocol, "/", &own, "own"), SUCCESS);
    WriteText(Root("dav") / "stays.txt", "22");
    fs::remove(Root("dav") / "goes.txt");
    WriteText(Root("dav") / "came.txt", "3");
    ChangeLog changes;
    ASSERT_EQ(protocol->GetChanges(&changes, &cookie), SUCCESS);
    EXPECT_EQ(changes.lines, (std::set<std::string>{"changed /stays.txt", "removed / goes.txt",
                                                    "added / came.txt"}));
    ChangeLog none;
    ASSERT_EQ(protocol->GetChanges(&none, &cookie), SUCCESS);
    EXPECT_TRUE(none.lines.empty());
}

}  // namespace
