#include "cli/status_command.h"

#include <json/json.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "cli/control_command.h"
#include "cli/control_socket.h"
#include "cli/volume_status.h"

int RunStatusCommand(const std::vector<std::string>& args) {
    ControlCommand command;
    if (const int code = ReadControlCommand("status", "--json", args, &command)) return code;
    std::string reply;
    if (!AskControl(command.socket, "status", &reply).ok()) {
        return NothingMounted(command.mountPoint);
    }
    Json::Value status;
    std::string parseErrors;
    std::istringstream stream(reply);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &status, &parseErrors) ||
        !status.isObject() || status.isMember("error")) {
        return CommandFailed(1,
                             "the skarvo at " + command.mountPoint + " gave no status: " + reply);
    }
    if (command.flag) {
        fputs(reply.c_str(), stdout);
    } else {
        fputs(FormatVolumeStatus(status).c_str(), stdout);
    }
    return 0;
}
