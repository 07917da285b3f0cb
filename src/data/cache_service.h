// The library's calls into the host's cache service.
#ifndef LIBFS_DATA_CACHE_SERVICE_H_
#define LIBFS_DATA_CACHE_SERVICE_H_

#include <memory>
#include <string>

#include "libfilesystem/cache.h"

// The cache key of a path built with "\" separators: its UTF-8 form with
// ASCII letters lower-cased, so keys are case-insensitive like the tree.
std::string CacheKey(const std::wstring& path);

// Opens (or creates) the cache object of `path` in mode 'r' or 'w' for a
// file of `size` bytes that `fetcher` fills; empty when no cache service is
// bound or it cannot.
std::shared_ptr<ICacheObj> GetCacheObj(const std::wstring& path, char mode, long long size,
                                       IFetch* fetcher);

// Tells the cache service that the object of `key` is no longer used.
void CloseCacheObj(const std::string& key);

// Re-keys the cache entry of `oldKey` to the key of `newPath`, when they
// differ. `extra` is handed to the service untouched.
void Rehash(const std::string& oldKey, const std::wstring& newPath, const char* extra);

// Tells the cache service where the entry of `key` belongs (see
// ICacheService::NoteOrigin); null arguments keep what it was told before.
void NoteCacheOrigin(const std::string& key, const char* path, IProtocol_V2* protocol,
                     const _FS_FILE_V2* base);

// Whether a cache service is bound.
bool HasCacheService();

#endif  // LIBFS_DATA_CACHE_SERVICE_H_
