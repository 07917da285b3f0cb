#include "cli/unmount_command.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "cli/control_command.h"
#include "cli/sizes.h"

namespace {

constexpr char kDone[] = "unmounted";

std::string Progress(const UnmountServer& server) {
    const auto unsent = server.unsent();
    if (unsent.first == 0) return "unmounting " + server.mountPoint;
    return "waiting for " + std::to_string(unsent.first) + " files (" + FormatBytes(unsent.second) +
           ") to reach the remote; skarvo unmount --now " + server.mountPoint +
           " stops without waiting";
}

}  // namespace

void ServeUnmount(const UnmountServer& server, bool now, const ControlServer::Writer& write) {
    // The same road as Ctrl-C: the first signal asks for an unmount that
    // waits for uploads, a second one (a different signal, so that the two
    // are not merged) forces it.
    kill(getpid(), SIGTERM);
    if (now) kill(getpid(), SIGINT);
    std::string said;
    for (int tick = 0; server.isMounted(); ++tick) {
        const std::string line = Progress(server);
        if (line != said || tick % 10 == 0) {
            if (!write(line + "\n")) return;
            said = line;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const auto unsent = server.unsent();
    if (unsent.first > 0) {
        write(std::to_string(unsent.first) + " files (" + FormatBytes(unsent.second) +
              ") not uploaded stay in the cache; the next skarvo mount uploads them\n");
    }
    write(std::string(kDone) + "\n");
}

int RunUnmountCommand(const std::vector<std::string>& args) {
    ControlCommand command;
    if (const int code = ReadControlCommand("unmount", "--now", args, &command)) return code;
    std::string last;
    const Status asked = AskControl(command.socket, command.flag ? "unmount now" : "unmount",
                                    [&last](const std::string& line) {
                                        fprintf(stderr, "skarvo: %s\n", line.c_str());
                                        last = line;
                                    });
    if (!asked.ok()) return NothingMounted(command.mountPoint);
    return last == kDone ? 0
                         : CommandFailed(1, "skarvo at " + command.mountPoint + " did not stop");
}
