#include "remotes/local_upload.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

#include "libfilesystem/unique_fd.h"
#include "remotes/local_paths.h"
#include "remotes/transfer_io.h"

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

    // The file is locked (flock) until the rename, so that listings leave it
    // alone: they remove unlocked temporary files as left by a dead upload.
    Status Create(const std::string& key) {
#ifdef O_TMPFILE
        // Made without a name and locked before it gets one, so that no
        // listing ever sees it unlocked. A listing that fell between a named
        // create and its lock removed the file, and the upload failed at the
        // rename with FILE_NOT_FOUND.
        // 0666 so that the file ends up with the process's usual permissions.
        fd_.Reset(openat(dirfd_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666));
        if (fd_.Valid()) {
            flock(fd_.Get(), LOCK_EX);
            const std::string self = "/proc/self/fd/" + std::to_string(fd_.Get());
            const Status named = Name(key, [&](const std::string& name) {
                return linkat(AT_FDCWD, self.c_str(), dirfd_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
            });
            if (named.ok()) return named;
            fd_.Reset();  // without /proc, for one: a named file as below
        }
        // Not every file system has unnamed files.
#endif
        return Name(key, [&](const std::string& name) {
            fd_.Reset(openat(dirfd_, name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
            if (fd_.Valid()) flock(fd_.Get(), LOCK_EX);
            return fd_.Valid();
        });
    }

    int fd() const {
        return fd_.Get();
    }

    // Flushes the file and renames it to `target`; it stays open, and so
    // locked, until the rename is done.
    Status Commit(const std::string& target, const std::string& key,
                  const std::function<Status()>& beforeRename, std::shared_mutex* renames) {
        if (fsync(fd_.Get()) != 0) return WriteFailure(errno, key);
        std::shared_lock<std::shared_mutex> lock;
        if (renames != nullptr) lock = std::shared_lock<std::shared_mutex>(*renames);
        if (beforeRename) {
            const Status status = beforeRename();
            if (!status.ok()) return status;
        }
        if (renameat(dirfd_, name_.c_str(), dirfd_, target.c_str()) != 0) {
            return Status::FromErrno(errno, key);
        }
        name_.clear();
        fd_.Reset();
        // Renames and moves wait only for the rename, not for the sync.
        if (lock.owns_lock()) lock.unlock();
        fsync(dirfd_);  // makes the rename durable; the data is already safe
        return Status::Ok();
    }

    static Status WriteFailure(int err, const std::string& key) {
        Status status = Status::FromErrno(err, key);
        if (status.code() == FAILED || status.code() == INVALID_PARAMETER) {
            status.set_code(FILE_WRITE_FAILED);
        }
        return status;
    }

  private:
    // Gives the file a free random name through `make`, which returns
    // whether the name was taken up and leaves errno set when not.
    template <typename Make>
    Status Name(const std::string& key, Make&& make) {
        static constexpr char kLetters[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
        thread_local std::mt19937_64 random{std::random_device{}()};
        std::uniform_int_distribution<size_t> pick(0, sizeof kLetters - 2);
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = kTemporaryPrefix;
            for (int i = 0; i < 12; ++i)
                name += kLetters[pick(random)];
            if (make(name)) {
                name_ = std::move(name);
                return Status::Ok();
            }
            if (errno != EEXIST) return Status::FromErrno(errno, key + ": temporary file");
        }
        return Status::Error(FAILED, key + ": no free temporary file name");
    }

    const int dirfd_;
    std::string name_;
    UniqueFd fd_;
};

// A source of unknown length: copied until it ends its data.
Status CopyStream(const LocalUpload& upload, int fd) {
    std::vector<char> buffer(kChunkSize);
    for (uint64_t done = 0;;) {
        size_t got = 0;
        Status status = ReadUploadSource(upload.source, upload.handle, upload.size, done,
                                         buffer.data(), buffer.size(), &got, upload.key);
        if (!status.ok() || got == 0) return status;
        if (!WriteAll(fd, buffer.data(), got)) {
            return TemporaryFile::WriteFailure(errno, upload.key);
        }
        done += got;
    }
}

Status CopySource(const LocalUpload& upload, int fd) {
    if (upload.size == UPLOAD_SIZE_UNKNOWN) return CopyStream(upload, fd);
    const uint64_t total = static_cast<uint64_t>(upload.size);
    std::vector<char> buffer(std::min<uint64_t>(kChunkSize, std::max<uint64_t>(total, 1)));
    ProgressReporter reporter(upload.progress, total);
    uint64_t done = 0;
    while (done < total) {
        size_t got = 0;
        Status status =
            ReadUploadSource(upload.source, upload.handle, upload.size, done, buffer.data(),
                             std::min<uint64_t>(buffer.size(), total - done), &got, upload.key);
        if (!status.ok()) return status;
        if (!WriteAll(fd, buffer.data(), got)) {
            return TemporaryFile::WriteFailure(errno, upload.key);
        }
        done += got;
        reporter.Report(done);
    }
    if (total == 0) reporter.Report(0);
    return Status::Ok();
}

}  // namespace

Status StoreAtomically(const LocalUpload& upload) {
    struct stat target {};
    bool replacing = false;
    if (fstatat(upload.dirfd, upload.name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISDIR(target.st_mode)) {
            return Status::Error(ALREADY_EXISTS, upload.key + ": a folder has this name");
        }
        if (!S_ISREG(target.st_mode)) {
            return Status::Error(ACCESS_DENIED, upload.key + ": not a regular file");
        }
        replacing = true;
    } else if (errno != ENOENT) {
        return Status::FromErrno(errno, upload.key);
    }

    TemporaryFile file(upload.dirfd);
    Status status = file.Create(upload.key);
    if (!status.ok()) return status;
    if (replacing) fchmod(file.fd(), target.st_mode & 07777);
    status = CopySource(upload, file.fd());
    if (!status.ok()) return status;
    return file.Commit(upload.name, upload.key, upload.beforeRename, upload.renames);
}
