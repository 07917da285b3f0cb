// Writes a 1 GiB file through a mounted volume and reads it back, then does
// the same on a plain folder of the local disk, and prints MB/s of both and
// their ratio. The volume serves a local-folder remote through the host's disk
// cache, both on this machine, so the numbers measure the library, FUSE and
// the disk, not a network.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "libfilesystem/libfilesystem.h"
#include "services/job_queue.h"
#include "support/disk_test_cache.h"
#include "support/test_env.h"
#include "support/test_remote.h"

namespace {

constexpr long long kSize = 1LL << 30;
constexpr size_t kChunk = 1 << 20;

double Seconds(const std::chrono::steady_clock::time_point& start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double WriteFileOf(const std::string& path, const std::vector<char>& chunk) {
    const auto start = std::chrono::steady_clock::now();
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return -1;
    for (long long done = 0; done < kSize; done += kChunk) {
        if (write(fd, chunk.data(), kChunk) != static_cast<ssize_t>(kChunk)) return -1;
    }
    fsync(fd);
    close(fd);
    return Seconds(start);
}

double ReadFileOf(const std::string& path) {
    std::vector<char> buffer(kChunk);
    const auto start = std::chrono::steady_clock::now();
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) return -1;
    long long total = 0;
    ssize_t n;
    while ((n = read(fd, buffer.data(), buffer.size())) > 0)
        total += n;
    close(fd);
    return total == kSize ? Seconds(start) : -1;
}

double MBps(double seconds) {
    return seconds > 0 ? (kSize / 1e6) / seconds : 0;
}

}  // namespace

int main() {
    const std::string why = KernelMountUnavailable();
    if (!why.empty()) {
        fprintf(stderr, "big_file: %s\n", why.c_str());
        return 1;
    }
    JobQueue queue;
    DiskTestCache cache(1 << 20);
    FS_BindAsyncQ(&queue);
    FS_BindCache(&cache);
    FS_Initialize("skarvo-bench");
    TempDir dir;
    std::vector<char> chunk(kChunk);
    for (size_t i = 0; i < chunk.size(); ++i)
        chunk[i] = static_cast<char>(i * 31 + 7);

    auto protocol = std::make_shared<TestRemote>();
    const std::string point = dir / "mnt";
    IFileSystem_V2* fs = nullptr;
    if (Mount(point.c_str(), "Bench", MT_DEFAULT, &fs, nullptr, nullptr) != SUCCESS) return 1;
    fs->AddProtocol(protocol, "remote");

    const double volumeWrite = WriteFileOf(point + "/big.bin", chunk);
    const auto uploadStart = std::chrono::steady_clock::now();
    // Uploads land whole under their name: the file's size there means done.
    WaitUntil(
        [&] {
            struct stat st {};
            return stat(protocol->Path("/big.bin").c_str(), &st) == 0 && st.st_size >= kSize &&
                   fs->CountUploadings() == 0;
        },
        std::chrono::minutes(10));
    const double upload = Seconds(uploadStart);
    const double volumeRead = ReadFileOf(point + "/big.bin");

    Unmount(point.c_str(), true);
    WaitUntil([&] { return FS_GetFileSystemImpl(point.c_str()) == nullptr; });
    FS_UnbindCache();
    FS_UnbindAsyncQ();

    const std::string local = dir / "local.bin";
    const double localWrite = WriteFileOf(local, chunk);
    const double localRead = ReadFileOf(local);

    printf("1 GiB write: volume %.0f MB/s, local disk %.0f MB/s (ratio %.2f)\n", MBps(volumeWrite),
           MBps(localWrite), MBps(volumeWrite) / MBps(localWrite));
    printf("1 GiB read:  volume %.0f MB/s, local disk %.0f MB/s (ratio %.2f)\n", MBps(volumeRead),
           MBps(localRead), MBps(volumeRead) / MBps(localRead));
    printf("the upload to the remote ended %.1f s after close()\n", upload);
    return volumeWrite > 0 && volumeRead > 0 ? 0 : 1;
}
