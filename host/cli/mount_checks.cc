#include "cli/mount_checks.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "common/stable_hash.h"
#include "libfilesystem/unique_fd.h"

Status CheckMountPoint(const std::string& path, std::string* canonical) {
    std::error_code ignored;
    const std::string shown = std::filesystem::absolute(path, ignored).lexically_normal().string();
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        const int code = errno;
        if (code == ENOENT) {
            return Status::Error("mount point " + shown +
                                 " does not exist; create it with mkdir -p " + shown);
        }
        if (code == ENOTCONN) {
            return Status::Error("mount point " + shown +
                                 " is left over from a volume whose program ended; unmount it "
                                 "with fusermount -u " +
                                 shown);
        }
        if (code == ENOTDIR) return Status::Error("mount point " + shown + " is not a folder");
        return Status::Error("cannot reach mount point " + shown + ": " + strerror(code));
    }
    const std::string real = resolved;
    free(resolved);
    struct stat info {};
    if (stat(real.c_str(), &info) != 0) {
        return Status::Error("cannot reach mount point " + shown + ": " + strerror(errno));
    }
    if (!S_ISDIR(info.st_mode)) {
        return Status::Error("mount point " + shown + " is not a folder");
    }
    DIR* folder = opendir(real.c_str());
    if (folder == nullptr) {
        return Status::Error("cannot read mount point " + shown + ": " + strerror(errno));
    }
    bool empty = true;
    while (const dirent* entry = readdir(folder)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            empty = false;
            break;
        }
    }
    closedir(folder);
    if (!empty) {
        return Status::Error("mount point " + shown + " is not empty");
    }
    *canonical = real;
    return Status::Ok();
}

Status CheckFuseDevice(const std::string& device) {
    const UniqueFd fd(open(device.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.Valid()) {
        return Status::Error(
            "cannot open " + device + ": " + strerror(errno) +
            "; load the fuse module (modprobe fuse) or run inside a container with "
            "--device " +
            device);
    }
    return Status::Ok();
}

std::string ResolvePath(const std::string& path) {
    std::error_code ignored;
    const std::filesystem::path absolute = std::filesystem::absolute(path, ignored);
    std::filesystem::path resolved = std::filesystem::weakly_canonical(absolute, ignored);
    if (resolved.empty()) resolved = absolute.lexically_normal();
    std::string text = resolved.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

bool IsSameOrInside(const std::string& path, const std::string& folder) {
    if (folder.empty() || path.empty()) return false;
    if (folder == "/") return path[0] == '/';
    return path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == '/');
}

std::string VolumeCacheDir(const std::string& cacheDir, const std::string& volumeName,
                           const std::vector<std::string>& identities) {
    // Stable from one run to the next.
    uint64_t hash = kStableHashStart;
    for (const std::string& identity : identities)
        hash = StableHash(identity + '\n', hash);
    std::string name;
    for (const char c : volumeName) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        name += plain ? c : '_';
        if (name.size() == 40) break;
    }
    if (name.empty() || name[0] == '.') name.insert(0, "v");
    char suffix[24];
    snprintf(suffix, sizeof(suffix), "-%016" PRIx64, hash);
    return cacheDir + "/volumes/" + name + suffix;
}
