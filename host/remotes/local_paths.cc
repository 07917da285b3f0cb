#include "remotes/local_paths.h"

#include "libfilesystem/unique_fd.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstring>

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Splits a key into its names; false for anything that is not "/" or "/"
// followed by valid names joined with "/".
bool SplitKey(const std::string& key, std::vector<std::string>* names) {
    names->clear();
    if (key.empty() || key[0] != '/' || key.size() >= PATH_MAX) return false;
    if (key == kLocalRootKey) return true;
    size_t start = 1;
    while (true) {
        const size_t end = key.find('/', start);
        std::string name = key.substr(start, end == std::string::npos ? end : end - start);
        if (!IsValidItemName(name)) return false;
        names->push_back(std::move(name));
        if (end == std::string::npos) return true;
        start = end + 1;
    }
}

Status InvalidKey(const std::string& key) {
    return Status::Error(INVALID_NAME, "invalid key \"" + key + "\"");
}

}  // namespace

bool IsTemporaryName(std::string_view name) {
    return name.substr(0, sizeof kTemporaryPrefix - 1) == kTemporaryPrefix;
}

void RemoveAbandonedTemporary(int dirfd, const std::string& name) {
    UniqueFd fd(openat(dirfd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.Valid() && flock(fd.Get(), LOCK_EX | LOCK_NB) == 0) unlinkat(dirfd, name.c_str(), 0);
}

bool IsValidItemName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos &&
           !IsTemporaryName(name);
}

std::string JoinKey(const std::string& folderKey, const std::string& name) {
    return folderKey == kLocalRootKey ? folderKey + name : folderKey + "/" + name;
}

std::string ParentKey(const std::string& key) {
    const size_t slash = key.rfind('/');
    if (slash == std::string::npos || slash == 0) return kLocalRootKey;
    return key.substr(0, slash);
}

bool IsSameOrBelow(const std::string& key, const std::string& ancestor) {
    if (ancestor == kLocalRootKey) return true;
    return key == ancestor ||
           (key.size() > ancestor.size() && key.compare(0, ancestor.size(), ancestor) == 0 &&
            key[ancestor.size()] == '/');
}

Status LocalPaths::Open(const std::string& path, std::shared_ptr<LocalPaths>* opened) {
    auto fail = [&](const std::string& text) {
        return Status::Error("remote folder " + path + " " + text);
    };
    if (path.empty()) return fail("is not given");
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        const int err = errno;
        if (err == ENOENT) return fail("does not exist");
        if (err == ENOTDIR) return fail("is not a directory");
        return fail("cannot be resolved: " + ErrnoText(err));
    }
    std::string root(resolved);
    free(resolved);
    struct stat st {};
    if (stat(root.c_str(), &st) != 0) return fail("cannot be read: " + ErrnoText(errno));
    if (!S_ISDIR(st.st_mode)) return fail("is not a directory");
    if (access(root.c_str(), R_OK | W_OK | X_OK) != 0) {
        return fail("is not readable and writable: " + ErrnoText(errno));
    }
    UniqueFd fd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid()) return fail("cannot be opened: " + ErrnoText(errno));
    opened->reset(new LocalPaths(std::move(root), std::move(fd)));
    return Status::Ok();
}

Status LocalPaths::Walk(const std::vector<std::string>& names, size_t count, const std::string& key,
                        AERROR missingLast, UniqueFd* out) const {
    UniqueFd dir(openat(rootFd_.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.Valid()) return Status::FromErrno(errno, root_);
    for (size_t i = 0; i < count; ++i) {
        const bool last = i + 1 == count;
        UniqueFd next;
        Status status = OpenSubfolder(dir.Get(), names[i], key, last ? missingLast : PATH_NOT_FOUND,
                                      last ? INVALID_DIRECTORY : PATH_NOT_FOUND, &next);
        if (!status.ok()) return status;
        dir = std::move(next);
    }
    *out = std::move(dir);
    return Status::Ok();
}

Status LocalPaths::OpenFolder(const std::string& key, AERROR missing, UniqueFd* out) const {
    std::vector<std::string> names;
    if (!SplitKey(key, &names)) return InvalidKey(key);
    return Walk(names, names.size(), key, missing, out);
}

Status LocalPaths::OpenParent(const std::string& key, UniqueFd* parent, std::string* name) const {
    std::vector<std::string> names;
    if (!SplitKey(key, &names)) return InvalidKey(key);
    if (names.empty()) {
        return Status::Error(ACCESS_DENIED, "the root folder cannot be changed this way");
    }
    Status status = Walk(names, names.size() - 1, key, PATH_NOT_FOUND, parent);
    if (status.ok()) *name = names.back();
    return status;
}

Status LocalPaths::StatKey(const std::string& key, struct stat* st) const {
    if (key == kLocalRootKey) {
        if (fstat(rootFd_.Get(), st) != 0) return Status::FromErrno(errno, root_);
        return Status::Ok();
    }
    UniqueFd parent;
    std::string name;
    Status status = OpenParent(key, &parent, &name);
    if (!status.ok()) return status;
    return StatItem(parent.Get(), name, key, st);
}

Status LocalPaths::StatItem(int dirfd, const std::string& name, const std::string& key,
                            struct stat* st) {
    if (fstatat(dirfd, name.c_str(), st, AT_SYMLINK_NOFOLLOW) != 0) {
        return Status::FromErrno(errno, key);
    }
    if (S_ISLNK(st->st_mode)) {
        return Status::Error(ACCESS_DENIED, key + ": symbolic links are not followed");
    }
    if (!S_ISREG(st->st_mode) && !S_ISDIR(st->st_mode)) {
        return Status::Error(ACCESS_DENIED, key + ": not a regular file or folder");
    }
    return Status::Ok();
}

Status LocalPaths::OpenSubfolder(int dirfd, const std::string& name, const std::string& key,
                                 AERROR missing, AERROR notFolder, UniqueFd* out) {
    UniqueFd fd(openat(dirfd, name.c_str(), kFolderFlags));
    if (fd.Valid()) {
        *out = std::move(fd);
        return Status::Ok();
    }
    const int err = errno;
    if (err == ENOENT) return Status::Error(missing, key + ": " + ErrnoText(err));
    if (err == ENOTDIR || err == ELOOP) {
        // O_NOFOLLOW | O_DIRECTORY on a link fails with either; tell them apart.
        struct stat st {};
        if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
            return Status::Error(ACCESS_DENIED, key + ": symbolic links are not followed");
        }
        return Status::Error(notFolder, key + ": " + ErrnoText(ENOTDIR));
    }
    return Status::FromErrno(err, key);
}

Status LocalPaths::ReadNames(int dirfd, const std::string& key, std::vector<std::string>* names) {
    // A descriptor of its own, so that the read position is not shared.
    UniqueFd fd(openat(dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid()) return Status::FromErrno(errno, key);
    DIR* dir = fdopendir(fd.Get());
    if (dir == nullptr) return Status::FromErrno(errno, key);
    fd.Release();  // closedir closes it
    names->clear();
    int err = 0;
    while (true) {
        errno = 0;
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            err = errno;
            break;
        }
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        names->emplace_back(entry->d_name);
    }
    closedir(dir);
    if (err != 0) return Status::FromErrno(err, key);
    return Status::Ok();
}

Status LocalPaths::ReadItems(int dirfd, const std::string& key, std::vector<LocalEntry>* items) {
    std::vector<std::string> names;
    Status status = ReadNames(dirfd, key, &names);
    if (!status.ok()) return status;
    items->clear();
    for (std::string& name : names) {
        if (IsTemporaryName(name)) RemoveAbandonedTemporary(dirfd, name);
        if (!IsValidItemName(name)) continue;
        LocalEntry entry;
        if (fstatat(dirfd, name.c_str(), &entry.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(entry.st.st_mode) && !S_ISDIR(entry.st.st_mode)) continue;
        entry.name = std::move(name);
        items->push_back(std::move(entry));
    }
    return Status::Ok();
}

Status LocalPaths::RemoveTree(int dirfd, const std::string& name, const std::string& key) {
    UniqueFd dir;
    Status status = OpenSubfolder(dirfd, name, key, FILE_NOT_FOUND, INVALID_PARAMETER, &dir);
    if (!status.ok()) return status;
    std::vector<std::string> names;
    status = ReadNames(dir.Get(), key, &names);
    if (!status.ok()) return status;
    for (const std::string& child : names) {
        const std::string childKey = key + "/" + child;
        struct stat st {};
        if (fstatat(dir.Get(), child.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;
            return Status::FromErrno(errno, childKey);
        }
        if (S_ISDIR(st.st_mode)) {
            status = RemoveTree(dir.Get(), child, childKey);
            if (!status.ok() && status.code() != FILE_NOT_FOUND) return status;
        } else if (unlinkat(dir.Get(), child.c_str(), 0) != 0 && errno != ENOENT) {
            return Status::FromErrno(errno, childKey);
        }
    }
    dir.Reset();
    if (unlinkat(dirfd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        return Status::FromErrno(errno, key);
    }
    return Status::Ok();
}
