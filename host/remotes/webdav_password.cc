#include "remotes/webdav_password.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "remotes/local_errors.h"
#include "remotes/unique_fd.h"

namespace {

constexpr size_t kMaxPasswordFile = 4096;

bool ReadPasswordFile(const std::string& path, std::string* password, std::string* error) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st {};
    if (!fd.Valid() || fstat(fd.Get(), &st) != 0) {
        *error = "cannot read the password file " + path + ": " + ErrnoText(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = "the password file " + path + " is not a regular file";
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        *error = "the password file " + path +
                 " may be read or changed by other users; make it private (chmod 600)";
        return false;
    }
    std::string text(kMaxPasswordFile, '\0');
    const ssize_t got = read(fd.Get(), &text[0], text.size());
    if (got < 0) {
        *error = "cannot read the password file " + path + ": " + ErrnoText(errno);
        return false;
    }
    text.resize(static_cast<size_t>(got));
    text = text.substr(0, text.find_first_of("\r\n"));
    if (text.empty()) {
        *error = "the password file " + path + " is empty";
        return false;
    }
    *password = std::move(text);
    return true;
}

}  // namespace

bool LoadWebdavPassword(const std::string& passwordFile, std::string* password,
                        std::string* error) {
    password->clear();
    if (!passwordFile.empty()) return ReadPasswordFile(passwordFile, password, error);
    if (const char* value = getenv(kWebdavPasswordVariable); value != nullptr && value[0] != '\0') {
        *password = value;
    }
    return true;
}
