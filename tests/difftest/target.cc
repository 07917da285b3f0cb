#include "target.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace difftest {

OwnedFd& OwnedFd::operator=(OwnedFd&& other) noexcept {
    if (this != &other) {
        reset();
        target_ = other.target_;
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

Outcome OwnedFd::reset() {
    Outcome out;
    if (fd_ >= 0) out = target_->close(fd_);
    fd_ = -1;
    return out;
}

namespace {

Outcome answer(int64_t value) {
    Outcome out;
    out.value = value;
    if (value < 0) out.err = errno;
    return out;
}

class RealTarget : public Target {
  public:
    explicit RealTarget(std::string root) : root_(std::move(root)) {}

    Outcome open(const std::string& path, int flags) override {
        return answer(::open(full(path).c_str(), flags | O_CLOEXEC, 0644));
    }
    Outcome close(int fd) override { return answer(::close(fd)); }
    Outcome pread(int fd, int64_t offset, size_t length) override {
        std::string buf(length, '\0');
        size_t got = 0;
        while (got < length) {
            ssize_t n = ::pread(fd, &buf[got], length - got, offset + got);
            if (n < 0) return answer(-1);
            if (n == 0) break;
            got += n;
        }
        buf.resize(got);
        Outcome out = answer(got);
        out.bytes = std::move(buf);
        return out;
    }
    Outcome pwrite(int fd, int64_t offset, const std::string& data) override {
        return answer(::pwrite(fd, data.data(), data.size(), offset));
    }
    Outcome write(int fd, const std::string& data) override {
        return answer(::write(fd, data.data(), data.size()));
    }
    Outcome ftruncate(int fd, int64_t size) override { return answer(::ftruncate(fd, size)); }
    Outcome truncate(const std::string& path, int64_t size) override {
        return answer(::truncate(full(path).c_str(), size));
    }
    Outcome fsync(int fd) override { return answer(::fsync(fd)); }
    Outcome mmap_read(int fd, int64_t offset, size_t length, int64_t size) override;
    Outcome stat(const std::string& path) override {
        struct stat st {};
        Outcome out = answer(::stat(full(path).c_str(), &st));
        if (!out.ok()) return out;
        out.bytes = S_ISREG(st.st_mode) ? "f" : S_ISDIR(st.st_mode) ? "d" : "o";
        out.value = S_ISREG(st.st_mode) ? st.st_size : 0;
        return out;
    }
    Outcome rename(const std::string& from, const std::string& to) override {
        return answer(::rename(full(from).c_str(), full(to).c_str()));
    }
    Outcome mkdir(const std::string& path) override {
        return answer(::mkdir(full(path).c_str(), 0755));
    }
    Outcome rmdir(const std::string& path) override { return answer(::rmdir(full(path).c_str())); }
    Outcome unlink(const std::string& path) override {
        return answer(::unlink(full(path).c_str()));
    }
    Outcome list(const std::string& path) override;

  private:
    std::string full(const std::string& path) const {
        return path.empty() || path == "." ? root_ : root_ + "/" + path;
    }
    std::string root_;
};

Outcome RealTarget::mmap_read(int fd, int64_t offset, size_t length, int64_t size) {
    struct stat st {};
    if (size < 0 && ::fstat(fd, &st) != 0) return answer(-1);
    if (size < 0) size = st.st_size;
    if (offset >= size) return answer(0);
    length = std::min<int64_t>(length, size - offset);
    const int64_t page = ::sysconf(_SC_PAGESIZE);
    const int64_t start = offset / page * page;
    const size_t span = length + (offset - start);
    void* map = ::mmap(nullptr, span, PROT_READ, MAP_SHARED, fd, start);
    if (map == MAP_FAILED) return answer(-1);
    Outcome out = answer(length);
    out.bytes.assign(static_cast<const char*>(map) + (offset - start), length);
    ::munmap(map, span);
    return out;
}

Outcome RealTarget::list(const std::string& path) {
    DIR* dir = ::opendir(full(path).c_str());
    if (!dir) return answer(-1);
    Outcome out;
    while (struct dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") && std::strcmp(entry->d_name, ".."))
            out.names.push_back(entry->d_name);
    }
    ::closedir(dir);
    return out;
}

}  // namespace

std::unique_ptr<Target> make_real_target(const std::string& root) {
    return std::make_unique<RealTarget>(root);
}

}  // namespace difftest
