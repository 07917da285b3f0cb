// A file system over a local-folder remote and the host's disk cache, without the
// kernel: what node-level tests start from.
#ifndef LIBFS_TESTS_SUPPORT_VOLUME_FIXTURE_H_
#define LIBFS_TESTS_SUPPORT_VOLUME_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "fs/filesystem.h"
#include "libfilesystem/libfilesystem.h"
#include "support/disk_test_cache.h"
#include "support/test_env.h"
#include "support/test_remote.h"
#include "tree/file.h"

// Records what the file system tells its host.
class RecordingEvents : public IFSEvent {
  public:
    struct Report {
        int kind;
        AERROR code;
        std::string localPath;
    };
    void Error(int kind, AERROR code, const char* localPath, const char*, void*) override;
    void Notice(int kind, const char* localPath, const char*, const char*) override;
    int AskUploadFailure(AERROR code, const char* localPath, char* answerPath,
                         unsigned long answerLength) override;
    void Progress(const char*, unsigned long long done, unsigned long long total, double) override;

    std::vector<Report> Errors();
    std::vector<Report> Notices();
    int Questions();
    // What AskUploadFailure answers, and the path it gives for a save.
    void Answer(int answer, std::string savePath = "");

  private:
    std::mutex mutex_;
    std::vector<Report> errors_;
    std::vector<Report> notices_;
    int questions_ = 0;
    int answer_ = 0;
    std::string savePath_;
};

// Records change notifications in order, as "EVENT path" texts.
class RecordingNotifier : public INotifier {
  public:
    int ChangeNotify(NOTIFYEVENT event, unsigned int, const void* item1,
                     const void* item2) override;
    std::vector<std::string> Events();
    void Clear();

  private:
    std::mutex mutex_;
    std::vector<std::string> events_;
};

class VolumeFixture : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The node at a volume path, or null.
    std::shared_ptr<File> Node(const std::string& path);
    // Opens a node as the volume does and returns its handle record.
    std::shared_ptr<_FS_HANDLE_EXT> OpenNode(const std::shared_ptr<File>& node, char mode,
                                             const std::string& process = "test");
    // The names that ReadDir gives for a folder, the marker files included.
    std::set<std::string> List(const std::string& path);
    // Reads `size` bytes at `offset` through the node; the bytes read.
    std::string ReadNode(const std::shared_ptr<File>& node, long long offset, unsigned long size,
                         AERROR* result = nullptr);

    RecordingLog log_;
    DiskTestCache cache_;
    std::unique_ptr<FileSystem> fs_;
    std::shared_ptr<TestRemote> protocol_;
    std::shared_ptr<RecordingEvents> events_;
    RecordingNotifier notifier_;
    FS_FEATURE features_ = FEATURE_ASYNC_UPLOAD;
};

#endif  // LIBFS_TESTS_SUPPORT_VOLUME_FIXTURE_H_
