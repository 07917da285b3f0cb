// skarvo: mounts remote storage as a local volume.
//   skarvo mount [options] REMOTE... MOUNTPOINT
//   skarvo status [--json] MOUNTPOINT
//   skarvo unmount [--now] MOUNTPOINT
//   skarvo remotes
//   skarvo SOURCE MOUNTPOINT -o OPTIONS   (mount -t fuse.skarvo, /etc/fstab)
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/control_command.h"
#include "cli/daemon.h"
#include "cli/mount_session.h"
#include "cli/named_remotes.h"
#include "cli/options.h"
#include "cli/status_command.h"
#include "cli/unmount_command.h"
#include "common/freed_memory.h"

#ifndef SKARVO_VERSION
#define SKARVO_VERSION "unknown"
#endif

namespace {

int WrongArguments(const std::string& error) {
    fprintf(stderr, "skarvo: %s (see skarvo --help)\n", error.c_str());
    return 2;
}

int ListNamedRemotes(const EnvLookup& env) {
    RemotesFile file;
    const Status read = ReadRemotesFile(RemotesFilePath(env), &file);
    if (!read.ok()) return CommandFailed(1, read.message());
    if (file.remotes.empty()) {
        fprintf(stderr, "skarvo: no named remotes in %s (see man skarvo)\n", file.path.c_str());
    }
    fputs(ListRemotes(file).c_str(), stdout);
    if (file.holdsPasswords && file.othersMayRead) {
        fprintf(stderr, "skarvo: %s holds passwords but others may read it; run chmod 600 %s\n",
                file.path.c_str(), file.path.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // With TZ unset, the C library checks /etc/localtime on every time
    // conversion: four stat calls per file created (strace of 1,000 creates
    // of 4 KiB). Naming the file reads it once; a change of the system's
    // time zone shows after skarvo's next start.
    setenv("TZ", ":/etc/localtime", 0);
    LimitHeapArenas();
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && args[0] == "status") {
        return RunStatusCommand(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    if (!args.empty() && args[0] == "unmount") {
        return RunUnmountCommand(std::vector<std::string>(args.begin() + 1, args.end()));
    }
    const EnvLookup env = [](const char* name) -> const char* { return getenv(name); };
    CommandLine command = ParseCommandLine(args, env);
    switch (command.action) {
        case CommandLine::Action::kHelp:
            fputs(HelpText(env).c_str(), stdout);
            return 0;
        case CommandLine::Action::kVersion:
            printf("skarvo %s\n", SKARVO_VERSION);
            return 0;
        case CommandLine::Action::kError:
            return WrongArguments(command.error);
        case CommandLine::Action::kRemotes:
            return ListNamedRemotes(env);
        case CommandLine::Action::kMount:
            break;
    }
    const Status resolved = ResolveNamedRemotes(args, env, &command);
    if (!resolved.ok()) return CommandFailed(2, resolved.message());
    // Before any thread starts, so that every thread inherits the mask.
    BlockStopSignals();
    const MountOptions& options = command.mount;
    if (!options.daemon) return RunMountCommand(options);
    // The SOURCE MOUNTPOINT form is mount(8)'s helper: it stays quiet.
    return RunInBackground(options.logFile, !command.mountHelper, [&](const MountedHook& mounted) {
        return RunMountCommand(options, mounted);
    });
}
