// Everything a host needs to use libfilesystem.
#ifndef LIBFILESYSTEM_LIBFILESYSTEM_H_
#define LIBFILESYSTEM_LIBFILESYSTEM_H_

#include "libfilesystem/aerror.h"
#include "libfilesystem/async.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/entry_points.h"
#include "libfilesystem/event_sink.h"
#include "libfilesystem/file_record.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/filter.h"
#include "libfilesystem/fs_config.h"
#include "libfilesystem/handle.h"
#include "libfilesystem/log.h"
#include "libfilesystem/notifier.h"
#include "libfilesystem/protocol.h"
#include "libfilesystem/unique_fd.h"
#include "libfilesystem/visibility.h"

#endif  // LIBFILESYSTEM_LIBFILESYSTEM_H_
