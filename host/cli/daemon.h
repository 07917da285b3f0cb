// "skarvo mount --daemon": the mount runs in a child process that leaves the
// terminal's session; the command returns once the volume is mounted, or
// fails with the child's one-line message and exit code, as in the
// foreground.
#ifndef SKARVO_CLI_DAEMON_H_
#define SKARVO_CLI_DAEMON_H_

#include <functional>
#include <string>

// Called by the child once the volume is mounted, with the volume's cache
// folder: it moves the child's standard streams off the terminal (standard
// error to the log file) and tells the waiting parent.
using MountedHook = std::function<void(const std::string& cacheFolder)>;

// Forks. The child runs `mount` with a MountedHook and exits with its result;
// until the hook runs, its messages go to the caller's standard error. The
// parent waits: once the volume is mounted it returns 0, printing where the
// log is when `announce`; when the child ends first, the child's exit code.
// `logFile` is --log-file (empty: skarvo.log in the cache folder). Call it
// before any thread starts.
int RunInBackground(const std::string& logFile, bool announce,
                    const std::function<int(const MountedHook&)>& mount);

#endif  // SKARVO_CLI_DAEMON_H_
