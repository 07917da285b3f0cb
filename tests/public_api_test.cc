// A host's view of the library: this file includes only the umbrella header
// and links only libfilesystem.so, so it fails to build if the public headers
// are incomplete or an entry point is not exported.
#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "libfilesystem/libfilesystem.h"

namespace {

class RecordingLog : public ILog {
  public:
    bool IsEnabled(LOGLEVEL) override { return true; }
    void LogV(LOGLEVEL level, const char* format, va_list args) override {
        char line[1024];
        vsnprintf(line, sizeof line, format, args);
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.emplace_back(level, line);
    }
    std::vector<std::pair<LOGLEVEL, std::string>> Lines() {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    bool Has(LOGLEVEL level, const std::string& text) {
        for (const auto& [l, line] : Lines()) {
            if (l == level && line == text) return true;
        }
        return false;
    }

  private:
    std::mutex mutex_;
    std::vector<std::pair<LOGLEVEL, std::string>> lines_;
};

class InlineQueue : public IAsyncQ {
  public:
    void Stop() override {}
    AERROR Queue(IAsyncObj* job, void* context) override {
        job->Process(context);
        return SUCCESS;
    }
    void Drain() override {}
};

class NoCache : public ICacheService {
  public:
    AERROR GetUsage(unsigned long long* used, unsigned long long* unsent) override {
        *used = *unsent = 0;
        return SUCCESS;
    }
    AERROR Flush() override { return SUCCESS; }
    AERROR Remove(const char*) override { return SUCCESS; }
    std::shared_ptr<ICacheObj> Open(const char*, char, long long, IFetch*) override {
        return nullptr;
    }
    void Close(const char*) override {}
    AERROR Rekey(const char*, const char*, const char*) override { return SUCCESS; }
};

class PublicApiTest : public ::testing::Test {
  protected:
    void TearDown() override {
        FS_UnbindLogger();
        FS_UnbindAsyncQ();
        FS_UnbindCache();
    }
    RecordingLog log_;
    InlineQueue queue_;
    NoCache cache_;
};

TEST_F(PublicApiTest, HostBindsServicesInitialisesAndReceivesLogLinesWithLevels) {
    EXPECT_EQ(FS_BindLogger(FS_LOGGER_MAIN, &log_), 1);
    EXPECT_EQ(FS_BindAsyncQ(&queue_), 1);
    EXPECT_EQ(FS_BindCache(&cache_), 1);
    EXPECT_EQ(logger, &log_);
    EXPECT_EQ(aq, &queue_);
    EXPECT_EQ(cache, &cache_);

    ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
    EXPECT_EQ(productname, "skarvo-test");
    EXPECT_TRUE(log_.Has(LL_INFO, "[FILESYSTEM] FS_Initilize"));

    // An unmount of a point that was never mounted is an error, logged as one.
    EXPECT_EQ(Unmount("/nowhere/mounted", false), FS_INVALID_LETTER);
    EXPECT_TRUE(log_.Has(LL_ERROR, "[FILESYSTEM] /nowhere/mounted not mounted"));
    EXPECT_EQ(FS_GetFileSystemImpl("/nowhere/mounted"), nullptr);
    EXPECT_EQ(FS_GetFileSystemImpl(nullptr), nullptr);
}

TEST_F(PublicApiTest, BindingRefusesNullAndUnknownKindsChangeNothing) {
    EXPECT_EQ(FS_BindLogger(FS_LOGGER_MAIN, nullptr), 0);
    EXPECT_EQ(FS_BindAsyncQ(nullptr), 0);
    EXPECT_EQ(FS_BindCache(nullptr), 0);
    EXPECT_EQ(logger, nullptr);

    EXPECT_EQ(FS_BindLogger(3, &log_), 1);
    EXPECT_EQ(logger, nullptr);
    EXPECT_EQ(ajlogger, nullptr);

    FS_BindLogger(FS_LOGGER_MAIN, &log_);
    FS_BindLogger(FS_LOGGER_ASYNC, &log_);
    EXPECT_EQ(ajlogger, &log_);
    FS_UnbindLogger();
    EXPECT_EQ(logger, nullptr);
    EXPECT_EQ(ajlogger, nullptr);

    FS_BindAsyncQ(&queue_);
    FS_UnbindAsyncQ();
    EXPECT_EQ(aq, nullptr);
    FS_BindCache(&cache_);
    FS_UnbindCache();
    EXPECT_EQ(cache, nullptr);
}

TEST_F(PublicApiTest, MountNeedsANonEmptyProductName) {
    FS_BindLogger(FS_LOGGER_MAIN, &log_);
    ASSERT_EQ(FS_Initialize("first"), SUCCESS);
    EXPECT_EQ(FS_Initialize(nullptr), INVALID_PARAMETER);
    EXPECT_EQ(productname, "first");

    ASSERT_EQ(FS_Initialize(""), SUCCESS);
    IFileSystem_V2* fs = nullptr;
    EXPECT_EQ(Mount("/tmp/libfs-never", "Never", MT_DEFAULT, &fs, nullptr, nullptr),
              FS_INITIALIZE_FIRST);
    EXPECT_EQ(Unmount("/tmp/libfs-never", false), FS_INITIALIZE_FIRST);
    // The request itself is logged before any check.
    EXPECT_TRUE(log_.Has(LL_INFO, "[FILESYSTEM] Mount Drive /tmp/libfs-never"));
}

TEST(PublicApiErrors, NamesAndErrnosReachTheHost) {
    EXPECT_STREQ(GetAERRORA(FS_UNMOUNT_EXIST_UPLOADING), "FS_UNMOUNT_EXIST_UPLOADING");
    EXPECT_STREQ(GetAERRORA(static_cast<AERROR>(12345)), "Unknown");
    EXPECT_EQ(ConvertAERROR(FILE_NOT_FOUND), -2);
}

}  // namespace
