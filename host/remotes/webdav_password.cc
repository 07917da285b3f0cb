#include "remotes/webdav_password.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "libfilesystem/unique_fd.h"
#include "remotes/local_errors.h"

namespace {

constexpr size_t kMaxPasswordFile = 4096;

Status ReadPasswordFile(const std::string& path, std::string* password) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st {};
    if (!fd.Valid() || fstat(fd.Get(), &st) != 0) {
        return Status::Error("cannot read the password file " + path + ": " + ErrnoText(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        return Status::Error("the password file " + path + " is not a regular file");
    }
    if ((st.st_mode & 077) != 0) {
        return Status::Error("the password file " + path +
                             " may be read or changed by other users; make it private (chmod 600)");
    }
    std::string text(kMaxPasswordFile, '\0');
    const ssize_t got = read(fd.Get(), &text[0], text.size());
    if (got < 0) {
        return Status::Error("cannot read the password file " + path + ": " + ErrnoText(errno));
    }
    text.resize(static_cast<size_t>(got));
    text = text.substr(0, text.find_first_of("\r\n"));
    if (text.empty()) {
        return Status::Error("the password file " + path + " is empty");
    }
    *password = std::move(text);
    return Status::Ok();
}

}  // namespace

Status LoadWebdavPassword(const std::string& passwordFile, std::string* password) {
    password->clear();
    if (!passwordFile.empty()) return ReadPasswordFile(passwordFile, password);
    if (const char* value = getenv(kWebdavPasswordVariable); value != nullptr && value[0] != '\0') {
        *password = value;
    }
    return Status::Ok();
}
