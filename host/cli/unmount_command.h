// "skarvo unmount [--now] MOUNTPOINT": asks the skarvo serving MOUNTPOINT,
// in the foreground or the background, to stop as Ctrl-C would: it waits
// for its uploads, showing how many are left, then unmounts. With --now it
// unmounts at once; data not yet uploaded stays in the cache and is
// uploaded by the next `skarvo mount` of the same remotes.
#ifndef SKARVO_CLI_UNMOUNT_COMMAND_H_
#define SKARVO_CLI_UNMOUNT_COMMAND_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cli/control_socket.h"

// The client. `args` follow the word "unmount". Returns the exit code: 0
// once the volume is unmounted, 1 when no skarvo serves the mount point or
// it did not stop, 2 for wrong arguments.
int RunUnmountCommand(const std::vector<std::string>& args);

// The running skarvo's side of the request "unmount" or "unmount now".
struct UnmountServer {
    std::string mountPoint;
    std::function<bool()> isMounted;
    // Files and bytes written and not uploaded yet.
    std::function<std::pair<size_t, uint64_t>()> unsent;
};

// Starts the stop with the process's own stop signals, then reports
// progress each second through `write` until the volume is gone, ending
// with the line "unmounted".
void ServeUnmount(const UnmountServer& server, bool now, const ControlServer::Writer& write);

#endif  // SKARVO_CLI_UNMOUNT_COMMAND_H_
