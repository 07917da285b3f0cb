// Browsing a mounted volume with the ordinary tools.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <set>
#include <sstream>
#include <thread>

#include "foundation/time_utils.h"
#include "libfilesystem/libfilesystem.h"
#include "support/memory_protocol.h"
#include "support/test_env.h"
#include "support/thread_queue.h"

namespace {

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class BrowseKernelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = KernelMountUnavailable();
        if (!why.empty()) GTEST_SKIP() << why;
        FS_BindLogger(FS_LOGGER_MAIN, &log_);
        FS_BindAsyncQ(&queue_);
        ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
        point_ = dir_ / "mnt";
        ASSERT_EQ(Mount(point_.c_str(), "Test", MT_DEFAULT, &fs_, nullptr, nullptr), SUCCESS);
        protocol_ = std::make_shared<MemoryProtocol>();
    }
    void TearDown() override {
        if (fs_ != nullptr) {
            Unmount(point_.c_str(), true);
            WaitUntil([&] { return FS_GetFileSystemImpl(point_.c_str()) == nullptr; });
        }
        FS_UnbindAsyncQ();
        FS_UnbindLogger();
    }
    std::string At(const std::string& path) const { return point_ + path; }

    RecordingLog log_;
    ThreadQueue queue_;
    TempDir dir_;
    std::string point_;
    IFileSystem_V2* fs_ = nullptr;
    std::shared_ptr<MemoryProtocol> protocol_;
};

TEST_F(BrowseKernelTest, ToolsSeeWhatTheProtocolHolds) {
    // 10 folders of 30 files each, of growing sizes, and one empty folder.
    long long totalBytes = 0;
    for (int folder = 0; folder < 10; ++folder) {
        for (int file = 0; file < 30; ++file) {
            const int size = folder * 100 + file;
            protocol_->AddFile(
                "/Dir" + std::to_string(folder) + "/File" + std::to_string(file) + ".txt",
                std::string(size, 'x'), "2023-06-07T08:09:10.000Z");
            totalBytes += size;
        }
    }
    protocol_->AddFolder("/Empty");
    protocol_->SetQuota(1ULL << 30, 1ULL << 28);
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);

    std::string output;
    ASSERT_EQ(RunProgram({"ls", "-la", At("/Dir3")}, &output), 0);
    std::set<std::string> names;
    for (const auto& line : Lines(output)) {
        if (line.rfind("total", 0) == 0) continue;
        names.insert(line.substr(line.find_last_of(' ') + 1));
    }
    EXPECT_EQ(names.size(), 30u + 4u);  // the files, the markers, "." and ".."
    EXPECT_TRUE(names.count("File7.txt"));
    EXPECT_TRUE(names.count(".ql_disablecache"));

    ASSERT_EQ(RunProgram({"stat", "-c", "%s %Y %f %h", At("/Dir3/File7.txt")}, &output), 0);
    std::ostringstream expected;
    expected << 307 << ' ' << RFC3339ToTM("2023-06-07T08:09:10.000Z") << " 81a4 1\n";
    EXPECT_EQ(output, expected.str());
    // The kernel keeps a folder's attributes for a second from its lookup,
    // which came before its listing.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ASSERT_EQ(RunProgram({"stat", "-c", "%s %f %h", At("/Dir3")}, &output), 0);
    EXPECT_EQ(output, "1446 41ed 34\n");  // 30 files, 2 markers, plus 2
    ASSERT_EQ(RunProgram({"stat", "-c", "%h", At("/Empty")}, &output), 0);
    EXPECT_EQ(output, "4\n");

    ASSERT_EQ(RunProgram({"find", point_, "-type", "f", "-name", "File*"}, &output), 0);
    EXPECT_EQ(Lines(output).size(), 300u);
    ASSERT_EQ(RunProgram({"find", point_, "-type", "d"}, &output), 0);
    EXPECT_EQ(Lines(output).size(), 12u);  // the root, ten folders and Empty

    ASSERT_EQ(RunProgram({"du", "-ab", At("/Dir9")}, &output), 0);
    const auto duLines = Lines(output);
    EXPECT_EQ(duLines.size(), 33u);  // 30 files, 2 markers and the folder
    long long sum = 0;
    for (int folder = 0; folder < 10; ++folder) {
        ASSERT_EQ(RunProgram({"du", "-sb", "--apparent-size", At("/Dir" + std::to_string(folder))},
                             &output),
                  0);
        sum += std::stoll(output) - 1446;
    }
    EXPECT_EQ(sum, totalBytes);

    struct statvfs sv;
    ASSERT_EQ(statvfs(point_.c_str(), &sv), 0);
    EXPECT_EQ(static_cast<unsigned long long>(sv.f_blocks) * sv.f_frsize, 1ULL << 30);
    EXPECT_EQ(static_cast<unsigned long long>(sv.f_bavail) * sv.f_frsize,
              (1ULL << 30) - (1ULL << 28));
    ASSERT_EQ(RunProgram({"df", "-B1", point_}, &output), 0);
    EXPECT_NE(output.find("skfs"), std::string::npos) << output;
}

TEST_F(BrowseKernelTest, EverySpellingOfANameReachesTheSameNode) {
    protocol_->AddFile("/Alpha/Beta/Gamma.txt", "gamma");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "memory"), SUCCESS);
    struct stat st;
    for (const std::string& spelling :
         std::vector<std::string>{"/Alpha\\Beta", "/alpha/beta", "/ALPHA/BETA/"}) {
        ASSERT_EQ(stat(At(spelling).c_str(), &st), 0) << spelling;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_TRUE(
            log_.Has("] GetAttr : " + spelling.substr(0, spelling.find_last_not_of('/') + 1)))
            << spelling;
    }
    // Each spelling lists the one folder, under the name the protocol uses.
    std::string output;
    ASSERT_EQ(RunProgram({"ls", At("/alpha")}, &output), 0);
    EXPECT_EQ(output, "Beta\n");
    ASSERT_EQ(RunProgram({"ls", At("/ALPHA/BETA")}, &output), 0);
    EXPECT_EQ(output, "Gamma.txt\n");
    EXPECT_EQ(ReadFile(At("/alpha/BETA/gamma.TXT")), "gamma");
    EXPECT_EQ(protocol_->Calls(MemoryProtocol::Op::ListFolder), 3);  // listed once each
}

TEST_F(BrowseKernelTest, TwoProtocolsAreOverlaidAtTheRoot) {
    auto second = std::make_shared<MemoryProtocol>("memory://second");
    protocol_->AddFile("/from-first.txt", "1");
    second->AddFile("/from-second.txt", "22");
    ASSERT_EQ(fs_->AddProtocol(protocol_, "first"), SUCCESS);
    ASSERT_EQ(fs_->AddProtocol(second, "second"), SUCCESS);
    EXPECT_EQ(fs_->AddProtocol(second, "again"), FS_ALREADY_AUTHORIZED);
    struct stat st;
    ASSERT_EQ(stat(At("/from-second.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 2);
    std::string output;
    ASSERT_EQ(RunProgram({"ls", point_}, &output), 0);
    EXPECT_NE(output.find("from-first.txt"), std::string::npos);
    EXPECT_NE(output.find("from-second.txt"), std::string::npos);
}

}  // namespace
