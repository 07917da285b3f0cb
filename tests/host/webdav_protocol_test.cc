// The WebDAV remote driven through IProtocol_V2 the way the library drives
// it, against a private Apache server (tests/webdav/apache_fixture.sh) whose
// document root the test also changes directly, as another client would.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "protocol_recorders.h"
#include "remotes/webdav_protocol.h"

namespace fs = std::filesystem;

namespace {

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
        const Status parsed = ParseWebdavAddress(
            false, "//127.0.0.1:" + std::to_string(port_) + "/" + share, &address);
        EXPECT_TRUE(parsed.ok()) << parsed.message();
        auto protocol = std::make_shared<WebdavProtocol>(address, HttpSettings());
        const Status checked = protocol->Check();
        EXPECT_TRUE(checked.ok()) << checked.message();
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
        FetchRecorder got(70000);
        void* cookie = nullptr;
        ASSERT_EQ(protocol->Download("/r.bin", 70000, 20000, nullptr, &got, &cookie), SUCCESS)
            << share;
        EXPECT_TRUE(got.contiguous) << share;
        EXPECT_EQ(got.data, data.substr(70000, 20000)) << share;
        // A range past the end delivers what there is.
        FetchRecorder tail(99990);
        ASSERT_EQ(protocol->Download("/r.bin", 99990, 100, nullptr, &tail, &cookie), SUCCESS);
        EXPECT_EQ(tail.data, data.substr(99990)) << share;
    }
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

TEST_F(WebdavProtocolTest, ChangesOfOtherClientsAreReportedAndOwnOnesAreNot) {
    WriteText(Root("dav") / "stays.txt", "1");
    WriteText(Root("dav") / "goes.txt", "1");
    auto protocol = Open("dav");
    ListRecorder listing;
    void* cookie = nullptr;
    ASSERT_EQ(protocol->ListFolder("/", &listing, &cookie), SUCCESS);
    _FS_FILE_V2 own;
    own.name = "own.txt";
    ASSERT_EQ(Upload(*protocol, "/", &own, "own"), SUCCESS);
    WriteText(Root("dav") / "stays.txt", "22");
    fs::remove(Root("dav") / "goes.txt");
    WriteText(Root("dav") / "came.txt", "3");
    ChangeRecorder changes;
    ASSERT_EQ(protocol->GetChanges(&changes, &cookie), SUCCESS);
    EXPECT_TRUE(changes.Has("changed /stays.txt 2") && changes.Has("removed / goes.txt") &&
                changes.Has("added / came.txt") &&
                std::count(changes.all.begin(), changes.all.end(), '\n') == 3)
        << changes.all;
    ChangeRecorder none;
    ASSERT_EQ(protocol->GetChanges(&none, &cookie), SUCCESS);
    EXPECT_EQ(none.all, "");
}

}  // namespace
