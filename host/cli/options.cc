#include "cli/options.h"

#include <getopt.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "cli/sizes.h"
#include "services/logger.h"

namespace {

using Apply = Status (*)(const std::string& value, MountOptions* options);

struct OptionDef {
    const char* name;   // "--cache-dir"
    const char* value;  // "DIR"; null for a flag
    const char* help;   // "{cache}" stands for the default cache folder
    Apply apply;
};

std::string Absolute(const std::string& path) {
    std::error_code ignored;
    std::string text = std::filesystem::absolute(path, ignored).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text.empty() ? path : text;
}

Status ApplyMountItem(const std::string& item, MountOptions* options);

Status ApplyFuseOptions(const std::string& value, MountOptions* options) {
    size_t start = 0;
    while (start <= value.size()) {
        size_t comma = value.find(',', start);
        if (comma == std::string::npos) comma = value.size();
        const Status applied = ApplyMountItem(value.substr(start, comma - start), options);
        if (!applied.ok()) return applied;
        start = comma + 1;
    }
    return Status::Ok();
}

const OptionDef kOptions[] = {
    {"--cache-dir", "DIR", "folder of the local cache (default {cache})",
     [](const std::string& v, MountOptions* o) {
         o->cacheDir = Absolute(v);
         return Status::Ok();
     }},
    {"--cache-max-size", "SIZE",
     "how much the cache may hold, with K, M, G or T (default 10G); data not yet uploaded is "
     "kept beyond it",
     [](const std::string& v, MountOptions* o) {
         uint64_t bytes = 0;
         const Status parsed = ParseSize(v, &bytes);
         if (!parsed.ok()) return parsed;
         if (bytes == 0) {
             return Status::Error("--cache-max-size must be more than 0");
         }
         o->cacheMaxBytes = bytes;
         return Status::Ok();
     }},
    {"--read-only", nullptr, "mount the volume read-only",
     [](const std::string&, MountOptions* o) {
         o->readOnly = true;
         return Status::Ok();
     }},
    {"--no-async-upload", nullptr, "close() returns only once the file is uploaded",
     [](const std::string&, MountOptions* o) {
         o->noAsyncUpload = true;
         return Status::Ok();
     }},
    {"--realtime-upload", nullptr, "stream writes to the remote while a file is being written",
     [](const std::string&, MountOptions* o) {
         o->realtimeUpload = true;
         return Status::Ok();
     }},
    {"--realtime-process", "NAME",
     "stream only the writes of processes named NAME (as in /proc/PID/comm); may be given "
     "several times; implies --realtime-upload",
     [](const std::string& v, MountOptions* o) {
         if (v.empty()) return Status::Error("--realtime-process needs a process name");
         o->realtimeUpload = true;
         o->realtimeProcesses.push_back(v);
         return Status::Ok();
     }},
    {"--config", "FILE", "JSON configuration of the volume",
     [](const std::string& v, MountOptions* o) {
         o->configFile = Absolute(v);
         return Status::Ok();
     }},
    {"-o", "OPTION[,OPTION]",
     "mount options: allow_other lets other users reach the volume (needs user_allow_other "
     "in /etc/fuse.conf unless root); ro is --read-only; NAME=VALUE (NAME for a flag) is "
     "--NAME VALUE; generic mount options (defaults, rw, _netdev...) are accepted",
     &ApplyFuseOptions},
    {"--daemon", nullptr,
     "go to the background once the volume is mounted; the log goes to --log-file (default: "
     "skarvo.log in the volume's cache folder)",
     [](const std::string&, MountOptions* o) {
         o->daemon = true;
         return Status::Ok();
     }},
    {"--log-level", "LEVEL", "debug, info, warning, error or critical (default warning)",
     [](const std::string& v, MountOptions* o) {
         if (ParseLogLevel(v, &o->logLevel)) return Status::Ok();
         return Status::Error("--log-level must be debug, info, warning, error or critical, not '" +
                              v + "'");
     }},
    {"--log-file", "FILE", "append the log to FILE instead of standard error",
     [](const std::string& v, MountOptions* o) {
         o->logFile = Absolute(v);
         return Status::Ok();
     }},
    {"--on-upload-failure", "ACTION",
     "retry (default: retry, then save), save (to the recovery folder at once) or cancel "
     "(drop the local changes)",
     [](const std::string& v, MountOptions* o) {
         if (v == "retry") {
             o->upload.action = UploadFailureAction::kRetry;
         } else if (v == "save") {
             o->upload.action = UploadFailureAction::kSave;
         } else if (v == "cancel") {
             o->upload.action = UploadFailureAction::kCancel;
         } else {
             return Status::Error("--on-upload-failure must be retry, save or cancel, not '" + v +
                                  "'");
         }
         return Status::Ok();
     }},
    {"--upload-retries", "N",
     "retries of a failed upload, after 1, 2, 4, 8... seconds, before it is saved (default 5)",
     [](const std::string& v, MountOptions* o) {
         char* end = nullptr;
         const long n = v.empty() || v[0] == '-' ? -1 : strtol(v.c_str(), &end, 10);
         if (n < 0 || n > 100 || end == nullptr || *end != '\0') {
             return Status::Error("--upload-retries must be a whole number from 0 to 100, not '" +
                                  v + "'");
         }
         o->upload.retries = static_cast<int>(n);
         return Status::Ok();
     }},
    {"--recovery-dir", "DIR",
     "where data that could not be uploaded is saved (default CACHE_DIR/recovered)",
     [](const std::string& v, MountOptions* o) {
         o->upload.recoveryDir = Absolute(v);
         return Status::Ok();
     }},
    {"--password-file", "FILE",
     "network remotes: read the password from the first line of FILE, which others must not "
     "be able to read (else SKARVO_WEBDAV_PASSWORD or ~/.netrc)",
     [](const std::string& v, MountOptions* o) {
         o->remote.passwordFile = Absolute(v);
         return Status::Ok();
     }},
    {"--insecure", nullptr,
     "network remotes: accept a TLS certificate that is not trusted (self-signed)",
     [](const std::string&, MountOptions* o) {
         o->remote.insecure = true;
         return Status::Ok();
     }},
    {"--timeout", "SECONDS",
     "network remotes: time allowed to connect, and for a request without progress; fault: "
     "remotes: how long a hung call waits (default 30)",
     [](const std::string& v, MountOptions* o) {
         char* end = nullptr;
         const long n = v.empty() || v[0] == '-' ? -1 : strtol(v.c_str(), &end, 10);
         if (n < 1 || n > 3600 || end == nullptr || *end != '\0') {
             return Status::Error(
                 "--timeout must be a whole number of seconds from 1 to 3600, not '" + v + "'");
         }
         o->remote.timeoutSeconds = n;
         return Status::Ok();
     }},
    {"--volname", "NAME", "volume name (default: the last part of the first remote's path)",
     [](const std::string& v, MountOptions* o) {
         if (v.empty()) {
             return Status::Error("--volname must not be empty");
         }
         o->volumeName = v;
         return Status::Ok();
     }},
};

const OptionDef* FindOption(const std::string& name) {
    for (const OptionDef& option : kOptions) {
        if (name == option.name) return &option;
    }
    return nullptr;
}

bool IsHelp(const std::string& arg) {
    return arg == "--help" || arg == "-h";
}
bool IsVersion(const std::string& arg) {
    return arg == "--version" || arg == "-V";
}

// Options that mount(8) and /etc/fstab lines hand to every file system:
// accepted in -o and left to the kernel's defaults for FUSE volumes.
bool IsGenericMountOption(const std::string& item) {
    static const char* const kGeneric[] = {"rw",     "defaults", "auto",     "noauto", "user",
                                           "nouser", "users",    "_netdev",  "nofail", "dev",
                                           "nodev",  "suid",     "nosuid",   "exec",   "noexec",
                                           "atime",  "noatime",  "relatime", "async"};
    for (const char* generic : kGeneric) {
        if (item == generic) return true;
    }
    return item.compare(0, 2, "x-") == 0 || item.compare(0, 8, "comment=") == 0;
}

// One item of -o: a FUSE option, a generic mount option, or a long option
// written as NAME=VALUE (NAME alone for a flag), as /etc/fstab lines give them.
Status ApplyMountItem(const std::string& item, MountOptions* options) {
    if (item == "allow_other") {
        options->allowOther = true;
        return Status::Ok();
    }
    if (item == "ro") {
        options->readOnly = true;
        return Status::Ok();
    }
    if (IsGenericMountOption(item)) return Status::Ok();
    const size_t equals = item.find('=');
    const std::string name = "--" + item.substr(0, equals);
    const OptionDef* option = item.empty() || name == "--o" ? nullptr : FindOption(name);
    if (option == nullptr) {
        return Status::Error(
            "unknown -o option '" + item +
            "' (supported: allow_other, ro, the long options as NAME=VALUE, and the generic "
            "mount options such as defaults or _netdev)");
    }
    if (option->value == nullptr && equals != std::string::npos) {
        return Status::Error("option -o " + name.substr(2) + " takes no value");
    }
    if (option->value != nullptr && equals == std::string::npos) {
        return Status::Error("option -o " + name.substr(2) + " needs a value (" + option->value +
                             ")");
    }
    return option->apply(equals == std::string::npos ? "" : item.substr(equals + 1), options);
}

// Appends `help` to `text`, broken into lines that end before column 80 and
// start at column `indent` (the first one where `text`'s last line ends).
void AppendWrapped(std::string* text, const std::string& help, size_t indent) {
    constexpr size_t kWidth = 79;
    size_t column = indent;
    size_t start = 0;
    bool first = true;
    while (start < help.size()) {
        size_t end = help.find(' ', start);
        if (end == std::string::npos) end = help.size();
        const std::string word = help.substr(start, end - start);
        start = end + 1;
        if (!first && column + 1 + word.size() > kWidth) {
            *text += "\n" + std::string(indent, ' ');
            column = indent;
            first = true;
        }
        if (!first) {
            *text += ' ';
            ++column;
        }
        *text += word;
        column += word.size();
        first = false;
    }
    *text += "\n";
}

CommandLine Fail(const std::string& error) {
    CommandLine result;
    result.action = CommandLine::Action::kError;
    result.error = error;
    return result;
}

// The name of a remote from remotes.conf: "nas:" on the command line.
bool IsNamedRemote(const std::string& text) {
    if (text.size() < 2 || text.back() != ':') return false;
    const std::string name = text.substr(0, text.size() - 1);
    if (FindRemoteScheme(name) != nullptr) return false;
    return name.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
           std::string::npos;
}

// Reads the options with getopt_long, in any order among the other
// arguments (which go to *positional); "--" ends the options. Returns the
// error, or an empty text.
std::string ReadOptions(const std::vector<std::string>& args, MountOptions* options,
                        std::vector<std::string>* positional) {
    constexpr int kLongBase = 1000;  // getopt's value of kOptions[i] is kLongBase + i
    constexpr size_t kCount = sizeof(kOptions) / sizeof(kOptions[0]);
    std::vector<struct option> longs;
    for (size_t i = 0; i < kCount; ++i) {
        if (kOptions[i].name[1] != '-') continue;  // -o is a short option only
        longs.push_back({kOptions[i].name + 2, kOptions[i].value ? required_argument : no_argument,
                         nullptr, kLongBase + static_cast<int>(i)});
    }
    longs.push_back({nullptr, 0, nullptr, 0});
    std::vector<std::string> storage = args;
    storage.insert(storage.begin(), "skarvo");
    std::vector<char*> argv;
    for (std::string& arg : storage)
        argv.push_back(arg.data());
    argv.push_back(nullptr);

    // "-": other arguments come back in order as 1; ":": a missing value is ':'.
    optind = 0;  // a fresh scan, also when called again
    opterr = 0;
    optopt = 0;
    const int argc = static_cast<int>(storage.size());
    for (int got; (got = getopt_long(argc, argv.data(), "-:o:", longs.data(), nullptr)) != -1;) {
        const std::string arg = argv[optind - 1];
        // The option returned, or for an error the one it is about (optopt).
        const int which = got == '?' || got == ':' ? optopt : got;
        const OptionDef* option = which == 'o'         ? FindOption("-o")
                                  : which >= kLongBase ? &kOptions[which - kLongBase]
                                                       : nullptr;
        if (got == 1) {
            positional->push_back(optarg);
        } else if (got == ':') {
            if (option == nullptr) return "option " + arg + " needs a value";
            return std::string("option ") + option->name + " needs a value (" + option->value + ")";
        } else if (got == '?') {
            if (option == nullptr) return "unknown option " + arg;
            return std::string("option ") + option->name + " takes no value";
        } else {
            const Status applied = option->apply(optarg != nullptr ? optarg : "", options);
            if (!applied.ok()) return applied.message();
        }
    }
    for (int i = optind; i < argc; ++i)
        positional->push_back(argv[i]);
    return "";
}

// The REMOTE arguments, between "mount" and the mount point; the error, or
// an empty text.
std::string ParseRemotes(const std::vector<std::string>& positional, MountOptions* options) {
    for (size_t i = 1; i + 1 < positional.size(); ++i) {
        RemoteArgument argument;
        if (IsNamedRemote(positional[i])) {
            argument.text = positional[i];
            argument.name = positional[i].substr(0, positional[i].size() - 1);
        } else if (const Status parsed = ParseRemote(positional[i], &argument); !parsed.ok()) {
            return parsed.message();
        }
        options->remotes.push_back(argument);
    }
    return "";
}

}  // namespace

std::string DefaultCacheDir(const EnvLookup& env) {
    const char* xdg = env("XDG_CACHE_HOME");
    // Relative values are to be ignored, as if the variable were not set.
    if (xdg != nullptr && xdg[0] == '/') return Absolute(std::string(xdg) + "/skarvo");
    const char* home = env("HOME");
    std::string base = home != nullptr && home[0] != '\0' ? home : "";
    if (base.empty()) {
        if (const struct passwd* entry = getpwuid(getuid())) {
            if (entry->pw_dir != nullptr) base = entry->pw_dir;
        }
    }
    if (base.empty()) base = "/tmp";
    return Absolute(base + "/.cache/skarvo");
}

MOUNTTYPE MountTypeFor(const MountOptions& options) {
    MOUNTTYPE type = MT_DEFAULT;
    if (options.readOnly) type = type | MT_READ_ONLY;
    if (options.noAsyncUpload) type = type | MT_NO_ASYNC_UPLOAD;
    if (options.realtimeUpload) type = type | MT_REALTIME_UPLOAD;
    return type;
}

CommandLine ParseCommandLine(const std::vector<std::string>& args, const EnvLookup& env) {
    for (const std::string& arg : args) {
        if (arg == "--") break;
        if (IsHelp(arg) || IsVersion(arg)) {
            CommandLine result;
            result.action =
                IsHelp(arg) ? CommandLine::Action::kHelp : CommandLine::Action::kVersion;
            return result;
        }
    }
    MountOptions options;
    std::vector<std::string> positional;
    const std::string error = ReadOptions(args, &options, &positional);
    if (!error.empty()) return Fail(error);
    if (positional.empty()) {
        return Fail("no command given; usage: skarvo mount [options] REMOTE... MOUNTPOINT");
    }
    CommandLine result;
    result.action = CommandLine::Action::kMount;
    const std::string& command = positional[0];
    if (command == "remotes") {
        if (positional.size() > 1) return Fail("remotes takes no arguments");
        result.action = CommandLine::Action::kRemotes;
        return result;
    }
    if (command != "mount") {
        // "SOURCE MOUNTPOINT -o OPTIONS", as mount(8) runs a file system's
        // helper for /etc/fstab and mount -t: the mount must go to the
        // background, because mount(8) waits for the helper to return.
        if (positional.size() != 2 || command.find(':') == std::string::npos) {
            return Fail("unknown command '" + command + "'");
        }
        positional.insert(positional.begin(), "mount");
        options.daemon = true;
        result.mountHelper = true;
    }
    if (positional.size() < 3) {
        return Fail(
            "mount needs at least one REMOTE and a MOUNTPOINT, e.g. skarvo mount "
            "local:/srv/data /mnt/data");
    }
    const std::string refused = ParseRemotes(positional, &options);
    if (!refused.empty()) return Fail(refused);
    options.mountPoint = positional.back();
    if (options.mountPoint.empty()) return Fail("the mount point must not be empty");
    if (options.cacheDir.empty()) options.cacheDir = DefaultCacheDir(env);
    if (options.upload.recoveryDir.empty()) {
        options.upload.recoveryDir = options.cacheDir + "/recovered";
    }
    result.mount = std::move(options);
    return result;
}

Status ApplyLongOption(const std::string& name, const std::string& value, MountOptions* options) {
    const OptionDef* option = FindOption("--" + name);
    if (option == nullptr || name == "o") {
        return Status::Error(
            "unknown key '" + name +
            "' (type, path, url, user, password, or a long option of skarvo mount)");
    }
    if (option->value == nullptr) return Status::Ok();
    return option->apply(value, options);
}

bool IsFlagOption(const std::string& name) {
    const OptionDef* option = FindOption("--" + name);
    return option != nullptr && option->value == nullptr;
}

std::string HelpText(const EnvLookup& env) {
    std::string text =
        "Usage: skarvo mount [options] REMOTE... MOUNTPOINT\n"
        "       skarvo unmount [--now] MOUNTPOINT\n"
        "       skarvo status [--json] MOUNTPOINT\n"
        "       skarvo remotes\n"
        "       skarvo SOURCE MOUNTPOINT [-o OPTION[,OPTION]...]\n"
        "       skarvo --help | --version\n"
        "\n"
        "mount mounts one volume at MOUNTPOINT whose root shows the contents of every\n"
        "REMOTE, and serves it in the foreground (or with --daemon in the background)\n"
        "until Ctrl-C, SIGTERM, or an unmount (fusermount -u MOUNTPOINT). MOUNTPOINT\n"
        "must be an existing, empty folder. unmount stops the skarvo serving\n"
        "MOUNTPOINT once its uploads are done (--now: at once, keeping them for the\n"
        "next mount); status shows what has not reached the remote yet (--json for\n"
        "scripts). After a crash, the next mount uploads what was left, or saves it\n"
        "to the recovery folder. remotes lists the named remotes of\n"
        "$XDG_CONFIG_HOME/skarvo/remotes.conf (NAME: mounts one). The SOURCE MOUNTPOINT\n"
        "form is how mount -t fuse.skarvo and /etc/fstab run skarvo: it mounts in the\n"
        "background, and -o also takes every long option as NAME=VALUE.\n"
        "\n"
        "Remotes:\n";
    for (const RemoteScheme& scheme : RemoteSchemes()) {
        std::string head = std::string("  ") + scheme.name + ":" + scheme.location;
        head.resize(std::max<size_t>(head.size() + 2, 28), ' ');
        text += head;
        AppendWrapped(&text, scheme.description, head.size());
    }
    text += "\nOptions:\n";
    const std::string cache = DefaultCacheDir(env);
    for (const OptionDef& option : kOptions) {
        std::string head = std::string("  ") + option.name;
        if (option.value != nullptr) head += std::string(" ") + option.value;
        std::string help = option.help;
        const size_t mark = help.find("{cache}");
        if (mark != std::string::npos) help.replace(mark, 7, cache);
        constexpr size_t kColumn = 28;
        if (head.size() + 2 > kColumn) {
            text += head + "\n" + std::string(kColumn, ' ');
        } else {
            head.resize(kColumn, ' ');
            text += head;
        }
        AppendWrapped(&text, help, kColumn);
    }
    text +=
        "  -h, --help                show this help\n"
        "  -V, --version             show the version\n"
        "\n"
        "Examples:\n"
        "  mkdir -p ~/mnt/data && skarvo mount local:/srv/data ~/mnt/data\n"
        "  in /etc/fstab:\n"
        "  local:/srv/data /mnt/data fuse.skarvo defaults,_netdev,cache-max-size=2G 0 0\n"
        "\n"
        "See skarvo(1) for named remotes, logging and the fstab line.\n";
    return text;
}
