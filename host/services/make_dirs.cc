#include "services/make_dirs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "libfilesystem/unique_fd.h"

Status MakeDirs(const std::string& path) {
    size_t start = 0;
    while (start < path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        const std::string part = path.substr(0, slash);
        start = slash + 1;
        if (part.empty()) continue;
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            return Status::Error("cannot create " + part + ": " + strerror(errno));
        }
    }
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return Status::Error(path + " is not a folder");
    }
    return Status::Ok();
}

bool SyncFolder(const std::string& path) {
    const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.Valid() && fsync(folder.Get()) == 0;
}
