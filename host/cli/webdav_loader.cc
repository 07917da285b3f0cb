#include "cli/webdav_loader.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "remotes/webdav_module.h"

namespace {

// The folder of the running program.
std::string ProgramFolder() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0) return ".";
    const std::string program(path, static_cast<size_t>(length));
    return program.substr(0, program.rfind('/'));
}

// Beside the program in a build tree; in the library folder's skarvo folder
// once installed.
std::vector<std::string> ModulePaths() {
    const std::string folder = ProgramFolder();
    return {folder + "/" + kWebdavModuleName,
            folder + "/../" SKARVO_LIBDIR "/skarvo/" + std::string(kWebdavModuleName)};
}

struct LoadedModule {
    OpenWebdavEntry open = nullptr;
    std::string error;  // why it could not be loaded
};

LoadedModule Load() {
    LoadedModule loaded;
    const std::vector<std::string> paths = ModulePaths();
    for (const std::string& path : paths) {
        if (access(path.c_str(), F_OK) != 0) continue;
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            loaded.error = dlerror();
            return loaded;
        }
        loaded.open = reinterpret_cast<OpenWebdavEntry>(dlsym(handle, kWebdavEntryPoint));
        if (loaded.open == nullptr) loaded.error = path + " has no entry point";
        return loaded;
    }
    loaded.error = paths.back() + " is missing";
    return loaded;
}

}  // namespace

Status OpenWebdavRemote(bool tls, const std::string& location, const RemoteOptions& options,
                        OpenedRemote* opened) {
    static std::once_flag once;
    static LoadedModule module;
    std::call_once(once, [] { module = Load(); });
    if (module.open == nullptr) {
        return Status::Error("WebDAV support cannot be loaded: " + module.error);
    }
    Status status;
    module.open(tls, location, options, opened, &status);
    return status;
}
