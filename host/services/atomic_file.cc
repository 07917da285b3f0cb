#include "services/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(fd, data, size);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

}  // namespace

bool ReplaceFileContent(const std::string& path, const std::string& content, bool durable,
                        std::string* error) {
    const std::string temp = path + ".tmp";
    const auto fail = [&](const char* what) {
        const int code = errno;
        if (error != nullptr) *error = std::string(what) + " " + path + ": " + strerror(code);
        unlink(temp.c_str());
        return false;
    };
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return fail("cannot create a new");
    if (!WriteAll(fd, content.data(), content.size()) || (durable && fsync(fd) != 0)) {
        const int code = errno;
        close(fd);
        errno = code;
        return fail("cannot write");
    }
    if (close(fd) != 0) return fail("cannot write");
    if (rename(temp.c_str(), path.c_str()) != 0) return fail("cannot replace");
    if (durable && !SyncDirectory(ParentOf(path))) {
        if (error != nullptr) *error = "cannot sync the folder of " + path;
        return false;
    }
    return true;
}

bool ReadFileContent(const std::string& path, std::string* content) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0) {
            if (errno == EINTR) continue;
            close(fd);
            return false;
        }
        if (got == 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    *content = std::move(text);
    return true;
}

bool SyncDirectory(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = fsync(fd) == 0;
    close(fd);
    return ok;
}
