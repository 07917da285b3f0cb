// The skarvo command line: "skarvo mount [options] REMOTE... MOUNTPOINT",
// "skarvo --help" and "skarvo --version".
#ifndef SKARVO_CLI_OPTIONS_H_
#define SKARVO_CLI_OPTIONS_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cli/remote_schemes.h"
#include "cli/upload_policy.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/log.h"

constexpr uint64_t kDefaultCacheMaxBytes = uint64_t{10} << 30;

struct MountOptions {
    std::vector<RemoteArgument> remotes;  // at least one
    std::string mountPoint;               // as given
    std::string cacheDir;                 // absolute
    uint64_t cacheMaxBytes = kDefaultCacheMaxBytes;
    bool readOnly = false;
    bool noAsyncUpload = false;
    bool realtimeUpload = false;
    // Empty: with realtimeUpload, every process's writes are streamed.
    std::vector<std::string> realtimeProcesses;
    std::string configFile;  // absolute; empty: none
    bool allowOther = false;
    LOGLEVEL logLevel = LL_WARNING;
    std::string logFile;     // absolute; empty: standard error
    UploadPolicy upload;     // recoveryDir defaults to <cacheDir>/recovered
    std::string volumeName;  // empty: derived from the first remote
    RemoteOptions remote;    // for network remotes; `log` is set when mounting
    bool daemon = false;     // --daemon, or the SOURCE MOUNTPOINT form of mount(8)
};

struct CommandLine {
    enum class Action { kMount, kRemotes, kHelp, kVersion, kError };
    Action action = Action::kError;
    MountOptions mount;        // for kMount
    bool mountHelper = false;  // the SOURCE MOUNTPOINT form
    std::string error;         // for kError: one line, without the program name
};

// Looks up an environment variable; null when it is not set.
using EnvLookup = std::function<const char*(const char*)>;

// Parses the arguments that follow the program name:
//   mount [options] REMOTE... MOUNTPOINT
//   remotes
//   SOURCE MOUNTPOINT [-o OPTIONS]   how mount(8) runs the helper of an
//                                    /etc/fstab line; mounts in the background
// Options may stand anywhere before "--"; -o takes generic mount options and
// every long option as NAME=VALUE. A remote "NAME:" names a section of
// remotes.conf: it is left unresolved (RemoteArgument::name, no scheme).
// Relative paths are made absolute against the current directory. --help
// and --version win over everything else, wherever they stand before "--".
CommandLine ParseCommandLine(const std::vector<std::string>& args, const EnvLookup& env);

// Applies the long option NAME (without "--") with VALUE, as on the command
// line; a flag ignores VALUE. Fails, saying why in one line, when NAME is no
// long option or VALUE is refused.
Status ApplyLongOption(const std::string& name, const std::string& value, MountOptions* options);
// Whether NAME (without "--") is a long option that takes no value.
bool IsFlagOption(const std::string& name);

// $XDG_CACHE_HOME/skarvo when XDG_CACHE_HOME is an absolute path, else
// $HOME/.cache/skarvo (the password database's home when HOME is not set).
std::string DefaultCacheDir(const EnvLookup& env);

// The mount request bits the options ask for.
MOUNTTYPE MountTypeFor(const MountOptions& options);

// The text of "skarvo --help".
std::string HelpText(const EnvLookup& env);

#endif  // SKARVO_CLI_OPTIONS_H_
