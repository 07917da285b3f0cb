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
#include "remotes/unique_fd.h"

namespace {

constexpr uint64_t kChunkSize = 1 << 20;
constexpr auto kProgressInterval = std::chrono::milliseconds(250);

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

// Progress reports to the library, at most one every kProgressInterval and
// always one when the last byte is in.
class ProgressReporter {
  public:
    ProgressReporter(const _TRANSFERPROGRESS* progress, uint64_t total)
        : progress_(progress != nullptr && progress->callback != nullptr ? progress : nullptr),
          total_(total),
          start_(std::chrono::steady_clock::now()),
          last_(start_) {}

    void Report(uint64_t done) {
        if (progress_ == nullptr) return;
        const auto now = std::chrono::steady_clock::now();
        if (done < total_ && now - last_ < kProgressInterval) return;
        last_ = now;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
        progress_->callback(done, total_, rate, progress_->context);
    }

  private:
    const _TRANSFERPROGRESS* progress_;
    const uint64_t total_;
    const std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
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
        _READDATA request;
        request.buffer = buffer.data();
        request.offset = static_cast<int64_t>(done);
        request.size = std::min<uint64_t>(buffer.size(), total - done);
        request.handle = upload.handle;
        request.fileSize = upload.size;
        request.partial = 1;
        const uint64_t asked = request.size;
        const AERROR code = upload.source->Read(&request);
        if (code != SUCCESS) {
            return LocalStatus::Error(
                code, upload.key + ": reading the data to store failed (" + GetAERRORA(code) + ")");
        }
        if (request.read <= 0 || static_cast<uint64_t>(request.read) > asked) {
            return LocalStatus::Error(FILE_READ_FAILED, upload.key +
                                                            ": the data to store ended after " +
                                                            std::to_string(done) + " of " +
                                                            std::to_string(total) + " bytes");
        }
        LocalStatus status =
            WriteAll(fd, buffer.data(), static_cast<size_t>(request.read), upload.key);
        if (!status.ok()) return status;
        done += static_cast<uint64_t>(request.read);
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
