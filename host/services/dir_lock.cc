#include "services/dir_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "libfilesystem/unique_fd.h"

Status DirLock::Acquire(const std::string& dir, std::unique_ptr<DirLock>* lock) {
    const std::string path = dir + "/lock";
    // Each open gets a lock of its own, so a second claim from this same
    // process is refused as well.
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd.Valid()) {
        return Status::Error("cannot open lock file " + path + ": " + strerror(errno));
    }
    while (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno == EWOULDBLOCK) {
            return Status::Error("cache directory " + dir +
                                 " is in use by another skarvo process (lock file " + path + ")");
        }
        return Status::Error("cannot lock " + path + ": " + strerror(errno));
    }
    lock->reset(new DirLock(fd.Release()));
    return Status::Ok();
}

DirLock::~DirLock() {
    close(fd_);
}
