// The argument list a FUSE mount is made with.
#ifndef LIBFS_EXPORT_MOUNT_ARGUMENTS_H_
#define LIBFS_EXPORT_MOUNT_ARGUMENTS_H_

#include <string>
#include <vector>

#include "export/export_service.h"

enum class MountPlatform { kMacOS, kLinux };

#ifdef __APPLE__
constexpr MountPlatform kThisPlatform = MountPlatform::kMacOS;
#else
constexpr MountPlatform kThisPlatform = MountPlatform::kLinux;
#endif

// Builds the arguments for `platform`. Both lists are built on every system
// so that each can be checked anywhere; options the other system's FUSE does
// not know are never passed (it rejects them).
std::vector<std::string> BuildMountArguments(const MountParameter& parameter,
                                             MountPlatform platform);

#endif  // LIBFS_EXPORT_MOUNT_ARGUMENTS_H_
