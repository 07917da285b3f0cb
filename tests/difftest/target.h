// The file operations the tester drives, behind one interface so that a test
// can put a faulty double in front of either side.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace difftest {

// What one operation answered: its value (a descriptor, a byte count, a
// size), errno when it failed, and the bytes or names it read.
struct Outcome {
    int64_t value = 0;
    int err = 0;
    std::string bytes;
    std::vector<std::string> names;
    bool ok() const { return err == 0; }
};

// Paths are relative to the target's root folder; descriptors are the
// target's own.
class Target {
  public:
    virtual ~Target() = default;
    virtual Outcome open(const std::string& path, int flags) = 0;
    virtual Outcome close(int fd) = 0;
    virtual Outcome pread(int fd, int64_t offset, size_t length) = 0;
    virtual Outcome pwrite(int fd, int64_t offset, const std::string& data) = 0;
    virtual Outcome write(int fd, const std::string& data) = 0;
    virtual Outcome ftruncate(int fd, int64_t size) = 0;
    virtual Outcome truncate(const std::string& path, int64_t size) = 0;
    virtual Outcome fsync(int fd) = 0;
    // Maps the file (PROT_READ, MAP_SHARED) and copies [offset, offset+length)
    // clamped to the file's size.
    // Maps and reads; `size` is the file's size, or negative to fstat it.
    virtual Outcome mmap_read(int fd, int64_t offset, size_t length, int64_t size) = 0;
    // bytes is "f" for a regular file (value is then its size), "d" for a
    // folder, "o" for anything else.
    virtual Outcome stat(const std::string& path) = 0;
    virtual Outcome rename(const std::string& from, const std::string& to) = 0;
    virtual Outcome mkdir(const std::string& path) = 0;
    virtual Outcome rmdir(const std::string& path) = 0;
    virtual Outcome unlink(const std::string& path) = 0;
    // names holds the entries of the folder, without "." and "..".
    virtual Outcome list(const std::string& path) = 0;
};

// A descriptor of a target, closed through that target when it goes out of
// scope.
class OwnedFd {
  public:
    OwnedFd() = default;
    OwnedFd(Target* target, int fd) : target_(target), fd_(fd) {}
    OwnedFd(OwnedFd&& other) noexcept { *this = std::move(other); }
    OwnedFd& operator=(OwnedFd&& other) noexcept;
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { reset(); }
    int get() const { return fd_; }
    // Closes now and says what close answered.
    Outcome reset();

  private:
    Target* target_ = nullptr;
    int fd_ = -1;
};

// Runs the system calls under a root folder.
std::unique_ptr<Target> make_real_target(const std::string& root);

}  // namespace difftest
