#include "services/dir_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

std::unique_ptr<DirLock> DirLock::Acquire(const std::string& dir, std::string* error) {
    const std::string path = dir + "/lock";
    // Each open gets a lock of its own, so a second claim from this same
    // process is refused as well.
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (error != nullptr) *error = "cannot open lock file " + path + ": " + strerror(errno);
        return nullptr;
    }
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        const int code = errno;
        close(fd);
        if (error != nullptr) {
            if (code == EWOULDBLOCK) {
                *error = "cache directory " + dir +
                         " is in use by another skarvo process (lock file " + path + ")";
            } else {
                *error = "cannot lock " + path + ": " + strerror(code);
            }
        }
        return nullptr;
    }
    return std::unique_ptr<DirLock>(new DirLock(fd));
}

DirLock::~DirLock() {
    close(fd_);
}
