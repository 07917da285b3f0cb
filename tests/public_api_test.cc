// A host's view of the library: the umbrella header comes first and alone,
// and the test links libfilesystem.so and the host's own services (which use
// nothing else), so it fails to build if the public headers are incomplete or
// an entry point is not exported.
#include "libfilesystem/libfilesystem.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "services/disk_cache.h"
#include "services/job_queue.h"
#include "support/test_env.h"

namespace {

class PublicApiTest : public ::testing::Test {
  protected:
    void TearDown() override {
        FS_UnbindLogger();
        FS_UnbindAsyncQ();
        FS_UnbindCache();
    }
    std::shared_ptr<DiskCache> MakeCache() {
        std::shared_ptr<DiskCache> made;
        EXPECT_TRUE(DiskCache::Create(dir_ / "cache", 1 << 20, &queue_, nullptr, &made).ok());
        return made;
    }
    RecordingLog log_;
    JobQueue queue_;
    TempDir dir_;
    std::shared_ptr<DiskCache> cache_ = MakeCache();
};

TEST_F(PublicApiTest, HostBindsServicesInitialisesAndReceivesLogLinesWithLevels) {
    EXPECT_EQ(FS_BindLogger(FS_LOGGER_MAIN, &log_), 1);
    EXPECT_EQ(FS_BindAsyncQ(&queue_), 1);
    EXPECT_EQ(FS_BindCache(cache_.get()), 1);
    EXPECT_EQ(logger, &log_);
    EXPECT_EQ(aq, &queue_);
    EXPECT_EQ(cache, cache_.get());

    ASSERT_EQ(FS_Initialize("skarvo-test"), SUCCESS);
    EXPECT_EQ(productname, "skarvo-test");
    EXPECT_TRUE(log_.Has("[FILESYSTEM] FS_Initilize", LL_INFO));

    // An unmount of a point that was never mounted is an error, logged as one.
    EXPECT_EQ(Unmount("/nowhere/mounted", false), FS_INVALID_LETTER);
    EXPECT_TRUE(log_.Has("[FILESYSTEM] /nowhere/mounted not mounted", LL_ERROR));
    EXPECT_EQ(FS_GetFileSystemImpl("/nowhere/mounted"), nullptr);
    EXPECT_EQ(FS_GetFileSystemImpl(nullptr), nullptr);
}

// Host protocols compiled apart from the library share the records' layout:
// no hidden table pointer, the fields in their documented order, and the
// second record extending the first.
static_assert(!std::has_virtual_destructor<_FS_FILE_V1>::value, "no virtual destructor");
static_assert(!std::is_polymorphic<_FS_FILE_V2>::value, "no virtual functions");
static_assert(std::is_base_of<_FS_FILE_V1, _FS_FILE_V2>::value, "V2 extends V1");

}  // namespace
