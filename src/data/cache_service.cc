#include "data/cache_service.h"

#include <mutex>

#include "foundation/string_utils.h"
#include "libfilesystem/entry_points.h"

std::string CacheKey(const std::wstring& path) {
    return FoldName(ws2s(path));
}

std::shared_ptr<ICacheObj> GetCacheObj(const std::wstring& path, char mode, long long size,
                                       IFetch* fetcher) {
    std::lock_guard<std::mutex> lock(cl);
    if (cache == nullptr) return nullptr;
    return cache->Open(CacheKey(path).c_str(), mode, size, fetcher);
}

void CloseCacheObj(const std::string& key) {
    std::lock_guard<std::mutex> lock(cl);
    if (cache != nullptr) cache->Close(key.c_str());
}

void Rehash(const std::string& oldKey, const std::wstring& newPath, const char* extra) {
    std::lock_guard<std::mutex> lock(cl);
    if (cache == nullptr) return;
    const std::string newKey = CacheKey(newPath);
    if (newKey == oldKey) return;
    cache->Rekey(oldKey.c_str(), newKey.c_str(), extra != nullptr ? extra : "");
}

void NoteCacheOrigin(const std::string& key, const char* path, IProtocol_V2* protocol,
                     const _FS_FILE_V2* base) {
    _CACHE_ORIGIN origin;
    origin.path = path;
    origin.protocol = protocol;
    origin.base = base;
    std::lock_guard<std::mutex> lock(cl);
    if (cache != nullptr) cache->NoteOrigin(key.c_str(), &origin);
}

bool HasCacheService() {
    std::lock_guard<std::mutex> lock(cl);
    return cache != nullptr;
}
