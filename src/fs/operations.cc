// The volume operations of a file system. Each logs its request, does its
// work and logs its outcome; operations still to come answer NOT_SUPPORTED.
#include "api/log.h"
#include "fs/filesystem.h"
#include "fs/log_macros.h"
#include "fs/open_flags.h"
#include "libfilesystem/entry_points.h"

int FileSystem::Outcome(const char* operation, AERROR result, const std::string& process,
                        const char* path) {
    __LOG__A(CurrentLogger(), result != SUCCESS ? LL_ERROR : LL_DEBUG,
             "[FILESYSTEM] [%s:%s] %s => %s : %s", letter_.c_str(), process.c_str(), operation,
             GetAERRORA(result), path != nullptr ? path : "");
    return ConvertAERROR(result);
}

int FileSystem::Create(const char* path, unsigned short mode, int flags, unsigned long long&,
                       IExportService*, std::string process) {
    LOG_REQUEST("%s : %s, %d with %s", "Create", path, mode, OpenFlagsText(flags).c_str());
    return Outcome("Create", NOT_SUPPORTED, process, path);
}

int FileSystem::MakeNode(const char*, unsigned short, int, std::string) {
    return ConvertAERROR(NOT_SUPPORTED);
}

int FileSystem::MakeDir(const char* path, unsigned short mode, std::string process) {
    LOG_REQUEST("%s : %s, %d", "MakeDir", path, mode);
    return Outcome("MakeDir", NOT_SUPPORTED, process, path);
}

int FileSystem::Open(const char* path, int flags, unsigned long long&, std::string process) {
    LOG_REQUEST("%s : %s with %s", "Open", path, OpenFlagsText(flags).c_str());
    return Outcome("Open", NOT_SUPPORTED, process, path);
}

int FileSystem::ReleaseDir(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "ReleaseDir", path);
    return Outcome("ReleaseDir", SUCCESS, process, path);
}

int FileSystem::Release(unsigned long long& handle, IExportService*, std::string process) {
    LOG_REQUEST("%s: %llu", "Release", handle);
    return Outcome("Release", NOT_SUPPORTED, process, "");
}

int FileSystem::Ftruncate(unsigned long long handle, long long size, std::string process) {
    LOG_REQUEST("%s : %llu, %lld", "Ftruncate", handle, size);
    return Outcome("Ftruncate", NOT_SUPPORTED, process, "");
}

int FileSystem::Unlink(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "Unlink", path);
    return Outcome("Unlink", NOT_SUPPORTED, process, path);
}

int FileSystem::RemoveDir(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "RemoveDir", path);
    return Outcome("RemoveDir", NOT_SUPPORTED, process, path);
}

int FileSystem::Rename(const char* from, const char* to, std::string process) {
    LOG_REQUEST("%s : %s to %s", "Rename", from, to);
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] [%s:%s] %s => %s : %s to %s", letter_.c_str(),
             process.c_str(), "Rename", GetAERRORA(NOT_SUPPORTED), from, to);
    return ConvertAERROR(NOT_SUPPORTED);
}

int FileSystem::Read(unsigned long long handle, char*, unsigned long size, long long offset,
                     IExportService*, std::string process) {
    LOG_REQUEST("%s : %llu, %lld, %d", "Read", handle, offset, static_cast<int>(size));
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] [%s:%s] handle not found : %llu",
             letter_.c_str(), process.c_str(), handle);
    return -5;
}

int FileSystem::Write(unsigned long long handle, const char*, unsigned long size, long long offset,
                      IExportService*, std::string process) {
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] [%s] %s : %llu, %lld, %d", letter_.c_str(),
             "Write", handle, offset, static_cast<int>(size));
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] [%s:%s] handle not found : %llu",
             letter_.c_str(), process.c_str(), handle);
    return -5;
}

int FileSystem::Flush(const char*, std::string) {
    return ConvertAERROR(SUCCESS);
}

AERROR FileSystem::UploadCacheSave(const char* path, const char*) {
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s %s => %s : %s", letter_.c_str(),
             "UploadCacheSave", GetAERRORA(NOT_SUPPORTED), path != nullptr ? path : "");
    return NOT_SUPPORTED;
}

AERROR FileSystem::UploadCacheRetry(const char* path) {
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s %s => %s : %s", letter_.c_str(),
             "UploadCacheRetry", GetAERRORA(NOT_SUPPORTED), path != nullptr ? path : "");
    return NOT_SUPPORTED;
}

AERROR FileSystem::UploadCacheCancel(const char* path) {
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s %s => %s : %s", letter_.c_str(),
             "UploadCacheCancel", GetAERRORA(NOT_SUPPORTED), path != nullptr ? path : "");
    return NOT_SUPPORTED;
}
