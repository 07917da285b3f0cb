// "skarvo mount": checks, binds the host services, mounts, serves until the
// volume is to go away, and tears everything down in order.
#ifndef SKARVO_CLI_MOUNT_SESSION_H_
#define SKARVO_CLI_MOUNT_SESSION_H_

#include "cli/daemon.h"
#include "cli/options.h"

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread, and so in every
// thread it starts afterwards: the mount session takes them with
// sigtimedwait. Call it before any thread is started.
void BlockStopSignals();

// Runs the mount command; returns the process's exit code: 0 once the volume
// was unmounted, 1 when it could not be mounted (the reason was printed as
// one line on standard error). `mounted`, when given, is called once the
// volume is mounted and serving (the background mode's hook).
int RunMountCommand(const MountOptions& options, const MountedHook& mounted = nullptr);

#endif  // SKARVO_CLI_MOUNT_SESSION_H_
