// Small files replaced as a whole, so that a crash leaves either the old or
// the new content, never a mix.
#ifndef SKARVO_SERVICES_ATOMIC_FILE_H_
#define SKARVO_SERVICES_ATOMIC_FILE_H_

#include <string>

// Writes `content` to "<path>.tmp" and renames it over `path`. With `durable`
// the file and its directory are synced, so the new content survives a
// power loss. False, with the reason in *error, on failure.
bool ReplaceFileContent(const std::string& path, const std::string& content, bool durable,
                        std::string* error);

// The whole content of `path`; false when it cannot be read.
bool ReadFileContent(const std::string& path, std::string* content);

// Syncs the directory `path`, making renames and unlinks in it durable.
bool SyncDirectory(const std::string& path);

#endif  // SKARVO_SERVICES_ATOMIC_FILE_H_
