// A file descriptor owned by one object and closed when that object goes.
#ifndef SKARVO_REMOTES_UNIQUE_FD_H_
#define SKARVO_REMOTES_UNIQUE_FD_H_

#include <unistd.h>

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
    void Reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

#endif  // SKARVO_REMOTES_UNIQUE_FD_H_
