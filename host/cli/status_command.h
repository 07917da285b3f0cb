// "skarvo status [--json] MOUNTPOINT": asks the skarvo serving MOUNTPOINT
// what has not reached the remote yet (see volume_status.h).
#ifndef SKARVO_CLI_STATUS_COMMAND_H_
#define SKARVO_CLI_STATUS_COMMAND_H_

#include <string>
#include <vector>

// `args` follow the word "status". Returns the exit code: 0 when the report
// was printed, 1 when no skarvo serves the mount point, 2 for wrong
// arguments.
int RunStatusCommand(const std::vector<std::string>& args);

#endif  // SKARVO_CLI_STATUS_COMMAND_H_
