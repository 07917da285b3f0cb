// Lists a folder of 10,000 entries through a mounted volume and stats every
// entry, then does the same on a plain folder of the local disk, and prints
// both times and their ratio. The volume serves a local-folder remote, so the
// numbers measure the library, FUSE and the disk, not a network.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "libfilesystem/libfilesystem.h"
#include "services/job_queue.h"
#include "support/test_env.h"
#include "support/test_remote.h"

namespace {

constexpr int kEntries = 10000;

class QuietLog : public ILog {
  public:
    bool IsEnabled(LOGLEVEL level) override { return level >= LL_WARNING; }
    void LogV(LOGLEVEL level, const char* format, va_list args) override {
        if (level < LL_WARNING) return;
        vfprintf(stderr, format, args);
        fputc('\n', stderr);
    }
};

// Lists `folder` and stats each entry; the number of entries seen.
int ListAndStat(const std::string& folder) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) return -1;
    int seen = 0;
    while (const dirent* entry = readdir(dir)) {
        struct stat st;
        if (stat((folder + "/" + entry->d_name).c_str(), &st) == 0) ++seen;
    }
    closedir(dir);
    return seen;
}

double Seconds(const std::chrono::steady_clock::time_point& start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main() {
    const std::string why = KernelMountUnavailable();
    if (!why.empty()) {
        fprintf(stderr, "list_stat: %s\n", why.c_str());
        return 1;
    }
    QuietLog log;
    JobQueue queue;
    FS_BindLogger(FS_LOGGER_MAIN, &log);
    FS_BindAsyncQ(&queue);
    FS_Initialize("skarvo-bench");
    TempDir dir;

    auto protocol = std::make_shared<TestRemote>();
    const std::string local = dir / "local";
    mkdir(local.c_str(), 0755);
    for (int i = 0; i < kEntries; ++i) {
        const std::string name = "file-" + std::to_string(i) + ".dat";
        protocol->AddFile("/big/" + name, "0123456789");
        WriteFile(local + "/" + name, "0123456789");
    }

    const std::string point = dir / "mnt";
    IFileSystem_V2* fs = nullptr;
    if (Mount(point.c_str(), "Bench", MT_DEFAULT, &fs, nullptr, nullptr) != SUCCESS) return 1;
    fs->AddProtocol(protocol, "remote");

    // The first pass lists the folder from the remote; the second is served
    // from the tree and the kernel's caches, as repeated work would be.
    auto start = std::chrono::steady_clock::now();
    const int first = ListAndStat(point + "/big");
    const double coldVolume = Seconds(start);
    start = std::chrono::steady_clock::now();
    const int second = ListAndStat(point + "/big");
    const double warmVolume = Seconds(start);

    ListAndStat(local);  // warm the local disk's caches too
    start = std::chrono::steady_clock::now();
    const int onDisk = ListAndStat(local);
    const double localTime = Seconds(start);

    Unmount(point.c_str(), true);
    WaitUntil([&] { return FS_GetFileSystemImpl(point.c_str()) == nullptr; });
    FS_UnbindAsyncQ();
    FS_UnbindLogger();

    printf("entries listed and stat'ed: volume %d/%d, local disk %d\n", first, second, onDisk);
    printf("volume, first pass:  %.3f s (%.1fx the local disk)\n", coldVolume,
           coldVolume / localTime);
    printf("volume, second pass: %.3f s (%.1fx the local disk)\n", warmVolume,
           warmVolume / localTime);
    printf("local disk:          %.3f s\n", localTime);
    // The volume also shows the folder's two marker files.
    return first == kEntries + 4 && second == kEntries + 4 ? 0 : 1;
}
