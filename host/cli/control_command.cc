#include "cli/control_command.h"

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "cli/control_socket.h"

int ReadControlCommand(const std::string& command, const std::string& flag,
                       const std::vector<std::string>& args, ControlCommand* out) {
    for (const std::string& arg : args) {
        if (arg == flag) {
            out->flag = true;
        } else if (out->mountPoint.empty() && !arg.empty() && arg[0] != '-') {
            out->mountPoint = arg;
        } else {
            return CommandFailed(2, command + " takes [" + flag + "] MOUNTPOINT, not '" + arg +
                                        "' (see skarvo --help)");
        }
    }
    if (out->mountPoint.empty()) {
        return CommandFailed(2, command + " needs the MOUNTPOINT (see skarvo --help)");
    }
    char resolved[PATH_MAX];
    if (realpath(out->mountPoint.c_str(), resolved) == nullptr) {
        return CommandFailed(
            1, "nothing of skarvo's is mounted at " + out->mountPoint + " (it does not exist)");
    }
    out->mountPoint = resolved;
    const Status found = ControlSocketPath(out->mountPoint, &out->socket);
    return found.ok() ? 0 : CommandFailed(1, found.message());
}

int CommandFailed(int code, const std::string& line) {
    fprintf(stderr, "skarvo: %s\n", line.c_str());
    return code;
}

int NothingMounted(const std::string& mountPoint) {
    return CommandFailed(
        1, "nothing of skarvo's is mounted at " + mountPoint + " (no skarvo answers there)");
}
