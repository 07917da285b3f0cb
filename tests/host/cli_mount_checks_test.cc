// The checks made before mounting, each failing with the one line the user
// needs, and the per-volume cache folders with their lock.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "cli/mount_checks.h"
#include "services/disk_cache.h"
#include "services/job_queue.h"
#include "support/test_env.h"

namespace {

class MountChecksTest : public ::testing::Test {
  protected:
    TempDir tmp_;
    const std::string dir_ = std::filesystem::canonical(tmp_.path()).string();
};

TEST_F(MountChecksTest, MountPointMustBeAnExistingEmptyFolder) {
    std::string canonical;
    Status status;
    const std::string point = dir_ + "/mnt";
    status = CheckMountPoint(point, &canonical);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ(status.message(),
              "mount point " + point + " does not exist; create it with mkdir -p " + point);

    ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
    ASSERT_EQ(symlink(point.c_str(), (dir_ + "/link").c_str()), 0);
    status = CheckMountPoint(dir_ + "/link/", &canonical);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(canonical, point);

    std::ofstream(point + "/.hidden") << "x";
    status = CheckMountPoint(point, &canonical);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ(status.message(), "mount point " + point + " is not empty");

    status = CheckMountPoint(point + "/.hidden", &canonical);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ(status.message(), "mount point " + point + "/.hidden is not a folder");
}

TEST_F(MountChecksTest, MissingFuseDeviceSaysWhatToDo) {
    Status status = CheckFuseDevice(dir_ + "/fuse");
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("cannot open " + dir_ + "/fuse: No such file or directory"),
              std::string::npos);
    EXPECT_NE(status.message().find("modprobe fuse"), std::string::npos);
    EXPECT_NE(status.message().find("--device " + dir_ + "/fuse"), std::string::npos);
    status = CheckFuseDevice("/dev/null");
    EXPECT_TRUE(status.ok());
}

TEST_F(MountChecksTest, ContainmentComparesWholeNames) {
    EXPECT_TRUE(IsSameOrInside("/srv/data", "/srv/data"));
    EXPECT_TRUE(IsSameOrInside("/srv/data/mnt", "/srv/data"));
    EXPECT_FALSE(IsSameOrInside("/srv/database", "/srv/data"));
    EXPECT_TRUE(IsSameOrInside("/anything", "/"));
    EXPECT_FALSE(IsSameOrInside("/srv", ""));

    ASSERT_EQ(symlink(dir_.c_str(), (dir_ + "/self").c_str()), 0);
    EXPECT_EQ(ResolvePath(dir_ + "/self/not/yet/there/"), dir_ + "/not/yet/there");
}

TEST_F(MountChecksTest, EachSetOfRemotesHasItsOwnLockedCache) {
    const std::string a = VolumeCacheDir(dir_, "data", {"local:/srv/data"});
    EXPECT_EQ(a.rfind(dir_ + "/volumes/data-", 0), 0u) << a;
    EXPECT_EQ(a, VolumeCacheDir(dir_, "data", {"local:/srv/data"}));
    EXPECT_NE(a, VolumeCacheDir(dir_, "data", {"local:/other/data"}));
    EXPECT_NE(VolumeCacheDir(dir_, "v", {"local:/a", "local:/b"}),
              VolumeCacheDir(dir_, "v", {"local:/b", "local:/a"}));
    const std::string odd = VolumeCacheDir(dir_, "../My Files", {"local:/x"});
    EXPECT_EQ(odd.find("/../"), std::string::npos) << odd;
    EXPECT_EQ(odd.find(' '), std::string::npos) << odd;

    JobQueue queue;
    std::shared_ptr<DiskCache> first;
    std::shared_ptr<DiskCache> second;
    std::shared_ptr<DiskCache> other;
    Status status = DiskCache::Create(a, 1 << 20, &queue, nullptr, &first);
    ASSERT_TRUE(status.ok()) << status.message();
    status = DiskCache::Create(a, 1 << 20, &queue, nullptr, &second);
    EXPECT_NE(status.message().find("in use by another skarvo process"), std::string::npos);
    status = DiskCache::Create(VolumeCacheDir(dir_, "data", {"local:/other/data"}), 1 << 20, &queue,
                               nullptr, &other);
    EXPECT_TRUE(status.ok()) << status.message();
    first.reset();
    other.reset();
    queue.Stop();
}

}  // namespace
