#include "remotes/local_upload.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "remotes/local_paths.h"
#include "remotes/transfer_io.h"
#include "remotes/unique_fd.h"

namespace {

constexpr uint64_t kChunkSize = 1 << 20;

// A temporary file in a folder that is removed again unless Commit renamed it.
class TemporaryFile {
  public:
    explicit TemporaryFile(int dirfd) : dirfd_(dirfd) {}
    ~TemporaryFile() {
        fd_.Reset();
        if (!name_.empty()) unlinkat(dirfd_, name_.c_str(), 0);
    }

    LocalStatus Create(const std::string& key) {
        static constexpr char kLetters[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        thread_local std::mt19937_64 random{std::random_device{}()};
        std::uniform_int_distribution<size_t> pick(0, sizeof kLetters - 2);
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = kTemporaryPrefix;
            for (int i = 0; i < 12; ++i)
                name += kLetters[pick(random)];
            // 0666 so that the file ends up with the process's usual permissions.
            fd_.Reset(openat(dirfd_, name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
            if (fd_.Valid()) {
                name_ = std::move(name);
                return LocalStatus::Ok();
            }
            if (errno != EEXIST) return LocalStatus::FromErrno(errno, key + ": temporary file");
        }
        return LocalStatus::Error(FAILED, key + ": no free temporary file name");
    }

    int fd() const { return fd_.Get(); }

    // Flushes and closes the file, then renames it to `target`.
    LocalStatus Commit(const std::string& target, const std::string& key,
                       const std::function<void()>& beforeRename) {
        if (fsync(fd_.Get()) != 0) return WriteFailure(errno, key);
        if (close(fd_.Release()) != 0) return WriteFailure(errno, key);
        if (beforeRename) beforeRename();
        if (renameat(dirfd_, name_.c_str(), dirfd_, target.c_str()) != 0) {
            return LocalStatus::FromErrno(errno, key);
        }
        name_.clear();
        fsync(dirfd_);  // makes the rename durable; the data is already safe
        return LocalStatus::Ok();
    }

    static LocalStatus WriteFailure(int err, const std::string& key) {
        LocalStatus status = LocalStatus::FromErrno(err, key);
        if (status.code == FAILED || status.code == INVALID_PARAMETER) {
            status.code = FILE_WRITE_FAILED;
        }
        return status;
    }

  private:
    const int dirfd_;
    std::string name_;
    UniqueFd fd_;
};

LocalStatus WriteAll(int fd, const char* data, size_t size, const std::string& key) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return TemporaryFile::WriteFailure(errno, key);
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return LocalStatus::Ok();
}

LocalStatus CopySource(const LocalUpload& upload, int fd) {
    const uint64_t total = static_cast<uint64_t>(upload.size);
    std::vector<char> buffer(std::min<uint64_t>(kChunkSize, std::max<uint64_t>(total, 1)));
    ProgressReporter reporter(upload.progress, total);
    uint64_t done = 0;
    while (done < total) {
        size_t got = 0;
        LocalStatus status =
            ReadUploadSource(upload.source, upload.handle, upload.size, done, buffer.data(),
                             std::min<uint64_t>(buffer.size(), total - done), &got, upload.key);
        if (!status.ok()) return status;
        status = WriteAll(fd, buffer.data(), got, upload.key);
        if (!status.ok()) return status;
        done += got;
        reporter.Report(done);
    }
    if (total == 0) reporter.Report(0);
    return LocalStatus::Ok();
}

}  // namespace

LocalStatus StoreAtomically(const LocalUpload& upload) {
    struct stat target {};
    bool replacing = false;
    if (fstatat(upload.dirfd, upload.name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(target.st_mode)) {
            return LocalStatus::Error(ALREADY_EXISTS, upload.key + ": a folder has this name");
        }
        if (!S_ISREG(target.st_mode)) {
            return LocalStatus::Error(ACCESS_DENIED, upload.key + ": not a regular file");
        }
        replacing = true;
    } else if (errno != ENOENT) {
        return LocalStatus::FromErrno(errno, upload.key);
    }

    TemporaryFile file(upload.dirfd);
    LocalStatus status = file.Create(upload.key);
    if (!status.ok()) return status;
    if (replacing) fchmod(file.fd(), target.st_mode & 07777);
    status = CopySource(upload, file.fd());
    if (!status.ok()) return status;
    return file.Commit(upload.name, upload.key, upload.beforeRename);
}
