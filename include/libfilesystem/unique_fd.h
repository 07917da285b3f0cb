// An owned file descriptor, and writing a whole buffer to one.
//
// UniqueFd holds at most one descriptor and closes it when it is reset,
// replaced or destroyed; it can be moved, not copied. A negative value means
// "none". Release() hands the descriptor back without closing it.
//
// WriteAll writes all `size` bytes of `data` to `fd`, writing again after a
// short write or an interrupted one (EINTR). It returns true once every byte
// is written; false on the first other failure, with errno telling why (a
// write that stores nothing reports EIO).
#ifndef LIBFILESYSTEM_UNIQUE_FD_H_
#define LIBFILESYSTEM_UNIQUE_FD_H_

#include <errno.h>
#include <unistd.h>

#include <cstddef>

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    // Gives up ownership without closing.
    int Release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes the descriptor held, if any, and holds `fd` instead.
    void Reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

inline bool WriteAll(int fd, const void* data, size_t size) {
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t done = ::write(fd, next, size);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (done == 0) {
            errno = EIO;
            return false;
        }
        next += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

#endif  // LIBFILESYSTEM_UNIQUE_FD_H_
