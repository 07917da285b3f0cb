// What skarvo checks before it mounts, so that a failure is one line telling
// the user what to do rather than a failed mount.
#ifndef SKARVO_CLI_MOUNT_CHECKS_H_
#define SKARVO_CLI_MOUNT_CHECKS_H_

#include <string>

#include <vector>
#include "common/status.h"

// The mount point must exist, be a folder and be empty. On success
// *canonical is its absolute path with links resolved.
Status CheckMountPoint(const std::string& path, std::string* canonical);

// Opens `device` (/dev/fuse) for reading and writing, as mounting will.
Status CheckFuseDevice(const std::string& device);

// `path` with its longest existing leading part resolved (links, "..");
// for paths that may not exist yet.
std::string ResolvePath(const std::string& path);

// Whether the absolute path `path` is `folder` or lies below it.
bool IsSameOrInside(const std::string& path, const std::string& folder);

// The cache folder of a volume made of the remotes with `identities`, in this
// order: "<cacheDir>/volumes/<name>-<hash>". Cached data is kept by the
// file's path in the volume, so volumes of other remotes must not share it.
std::string VolumeCacheDir(const std::string& cacheDir, const std::string& volumeName,
                           const std::vector<std::string>& identities);

#endif  // SKARVO_CLI_MOUNT_CHECKS_H_
