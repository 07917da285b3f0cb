// The engine on two plain folders: equal folders show no difference, and a
// volume side that misbehaves is caught, shrunk to a few operations, and the
// shrunk sequence still fails when replayed from its text form.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "runs.h"
#include "tree_compare.h"

namespace difftest {
namespace {

class TempFolders : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/difftest-test-XXXXXX";
        root_ = mkdtemp(pattern);
        std::filesystem::create_directory(root_ + "/volume");
        std::filesystem::create_directory(root_ + "/reference");
        volume_ = make_real_target(root_ + "/volume");
        reference_ = make_real_target(root_ + "/reference");
    }
    void TearDown() override { std::filesystem::remove_all(root_); }

    std::string root_;
    std::unique_ptr<Target> volume_, reference_;
};

TEST_F(TempFolders, EqualFoldersShowNoDifference) {
    RunDirs dirs(*volume_, *reference_);
    for (uint64_t seed : {1, 2, 3}) {
        difftest::Run run = run_generated(*volume_, *reference_, dirs.next(), seed, 3000);
        EXPECT_FALSE(run.failure) << "seed " << seed << ": " << run.failure->message;
    }
    EXPECT_TRUE(compare_trees(*volume_, *reference_, "").empty());
}

TEST_F(TempFolders, TreeComparisonIgnoresMarkersOnlyOnTheVolumeSide) {
    std::ofstream(root_ + "/volume/.ql_disablecache");
    EXPECT_TRUE(compare_trees(*volume_, *reference_, "").empty());
    std::ofstream(root_ + "/reference/.ql_disablethumbnails");
    std::ofstream(root_ + "/volume/f") << "abc";
    std::ofstream(root_ + "/reference/f") << "abd";
    EXPECT_EQ(compare_trees(*volume_, *reference_, "").size(), 2u);
}

// Passes everything through to a real folder; a fault overrides one call.
class Forwarding : public Target {
  public:
    explicit Forwarding(std::unique_ptr<Target> inner) : in_(std::move(inner)) {}
    Outcome open(const std::string& p, int f) override { return in_->open(p, f); }
    Outcome close(int fd) override { return in_->close(fd); }
    Outcome pread(int fd, int64_t o, size_t n) override { return in_->pread(fd, o, n); }
    Outcome pwrite(int fd, int64_t o, const std::string& d) override {
        return in_->pwrite(fd, o, d);
    }
    Outcome write(int fd, const std::string& d) override { return in_->write(fd, d); }
    Outcome ftruncate(int fd, int64_t s) override { return in_->ftruncate(fd, s); }
    Outcome truncate(const std::string& p, int64_t s) override { return in_->truncate(p, s); }
    Outcome fsync(int fd) override { return in_->fsync(fd); }
    Outcome mmap_read(int fd, int64_t o, size_t n, int64_t size) override {
        return in_->mmap_read(fd, o, n, size);
    }
    Outcome stat(const std::string& p) override { return in_->stat(p); }
    Outcome rename(const std::string& a, const std::string& b) override {
        return in_->rename(a, b);
    }
    Outcome mkdir(const std::string& p) override { return in_->mkdir(p); }
    Outcome rmdir(const std::string& p) override { return in_->rmdir(p); }
    Outcome unlink(const std::string& p) override { return in_->unlink(p); }
    Outcome list(const std::string& p) override { return in_->list(p); }

  protected:
    std::unique_ptr<Target> in_;
};

// Reads past 64 KiB come back with one byte changed.
class FlipsBytesPast64K : public Forwarding {
  public:
    using Forwarding::Forwarding;
    Outcome pread(int fd, int64_t offset, size_t length) override {
        Outcome out = in_->pread(fd, offset, length);
        constexpr int64_t kLimit = 64 * 1024;
        if (offset + int64_t(out.bytes.size()) > kLimit)
            out.bytes[std::max<int64_t>(0, kLimit - offset)] ^= 0x20;
        return out;
    }
};

// Renaming onto a non-empty folder answers EEXIST instead of ENOTEMPTY.
class WrongRenameErrno : public Forwarding {
  public:
    using Forwarding::Forwarding;
    Outcome rename(const std::string& a, const std::string& b) override {
        Outcome out = in_->rename(a, b);
        if (out.err == ENOTEMPTY) out.err = EEXIST;
        return out;
    }
};

template <typename Fault>
void expect_caught_and_shrunk(const std::string& root, Target& reference) {
    Fault volume(make_real_target(root + "/volume"));
    RunDirs dirs(volume, reference);
    Run run;
    for (uint64_t seed = 1; seed <= 5 && !run.failure; ++seed)
        run = run_generated(volume, reference, dirs.next(), seed, 3000);
    ASSERT_TRUE(run.failure) << "the fault went unnoticed";

    Shrunk shrunk = shrink(volume, reference, dirs, run, 120);
    ASSERT_TRUE(shrunk.run.failure);
    std::stringstream text;
    write_sequence(text, shrunk.run.ops);
    EXPECT_LE(shrunk.run.ops.size(), 6u) << text.str();

    std::string bad;
    auto replayed = read_sequence(text, &bad);
    ASSERT_TRUE(replayed) << bad;
    EXPECT_TRUE(run_sequence(volume, reference, dirs.next(), *replayed)) << text.str();
}

TEST_F(TempFolders, FaultsAreCaughtAndShrunkToAFewReplayableOperations) {
    expect_caught_and_shrunk<FlipsBytesPast64K>(root_, *reference_);
    expect_caught_and_shrunk<WrongRenameErrno>(root_, *reference_);
}

}  // namespace
}  // namespace difftest
