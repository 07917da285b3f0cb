// The command line of the commands that talk to a running skarvo:
// "skarvo COMMAND [FLAG] MOUNTPOINT".
#ifndef SKARVO_CLI_CONTROL_COMMAND_H_
#define SKARVO_CLI_CONTROL_COMMAND_H_

#include <string>
#include <vector>

struct ControlCommand {
    bool flag = false;       // FLAG was given
    std::string mountPoint;  // absolute, resolved
    std::string socket;      // where its skarvo would listen
};

// Reads `args` (what follows COMMAND). Returns 0, or the exit code after
// printing one line: 2 for wrong arguments, 1 when MOUNTPOINT does not exist
// or the socket's folder cannot be used.
int ReadControlCommand(const std::string& command, const std::string& flag,
                       const std::vector<std::string>& args, ControlCommand* out);

// Prints "skarvo: LINE" on standard error and returns `code`.
int CommandFailed(int code, const std::string& line);

// Prints that no skarvo serves `mountPoint` and returns 1.
int NothingMounted(const std::string& mountPoint);

#endif  // SKARVO_CLI_CONTROL_COMMAND_H_
