// skarvo: mounts remote storage as a local volume.
//   skarvo mount [options] REMOTE... MOUNTPOINT
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/mount_session.h"
#include "cli/options.h"

#ifndef SKARVO_VERSION
#define SKARVO_VERSION "unknown"
#endif

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const EnvLookup env = [](const char* name) -> const char* { return getenv(name); };
    const CommandLine command = ParseCommandLine(args, env);
    switch (command.action) {
        case CommandLine::Action::kHelp:
            fputs(HelpText(env).c_str(), stdout);
            return 0;
        case CommandLine::Action::kVersion:
            printf("skarvo %s\n", SKARVO_VERSION);
            return 0;
        case CommandLine::Action::kError:
            fprintf(stderr, "skarvo: %s (see skarvo --help)\n", command.error.c_str());
            return 2;
        case CommandLine::Action::kMount:
            break;
    }
    // Before any thread starts, so that every thread inherits the mask.
    BlockStopSignals();
    return RunMountCommand(command.mount);
}
