#include "cli/options.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "cli/sizes.h"
#include "services/logger.h"

namespace {

using Apply = bool (*)(const std::string& value, MountOptions* options, std::string* error);

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

bool ApplyFuseOptions(const std::string& value, MountOptions* options, std::string* error) {
    size_t start = 0;
    while (start <= value.size()) {
        size_t comma = value.find(',', start);
        if (comma == std::string::npos) comma = value.size();
        const std::string item = value.substr(start, comma - start);
        if (item == "allow_other") {
            options->allowOther = true;
        } else if (item == "ro") {
            options->readOnly = true;
        } else {
            *error = "unknown -o option '" + item + "' (supported: allow_other, ro)";
            return false;
        }
        start = comma + 1;
    }
    return true;
}

const OptionDef kOptions[] = {
    {"--cache-dir", "DIR", "folder of the local cache (default {cache})",
     [](const std::string& v, MountOptions* o, std::string*) {
         o->cacheDir = Absolute(v);
         return true;
     }},
    {"--cache-max-size", "SIZE",
     "how much the cache may hold, with K, M, G or T (default 10G); data not yet uploaded is "
     "kept beyond it",
     [](const std::string& v, MountOptions* o, std::string* e) {
         uint64_t bytes = 0;
         if (!ParseSize(v, &bytes, e)) return false;
         if (bytes == 0) {
             *e = "--cache-max-size must be more than 0";
             return false;
         }
         o->cacheMaxBytes = bytes;
         return true;
     }},
    {"--read-only", nullptr, "mount the volume read-only",
     [](const std::string&, MountOptions* o, std::string*) {
         o->readOnly = true;
         return true;
     }},
    {"--no-async-upload", nullptr, "close() returns only once the file is uploaded",
     [](const std::string&, MountOptions* o, std::string*) {
         o->noAsyncUpload = true;
         return true;
     }},
    {"--realtime-upload", nullptr, "stream writes to the remote while a file is being written",
     [](const std::string&, MountOptions* o, std::string*) {
         o->realtimeUpload = true;
         return true;
     }},
    {"--config", "FILE", "JSON configuration of the volume",
     [](const std::string& v, MountOptions* o, std::string*) {
         o->configFile = Absolute(v);
         return true;
     }},
    {"-o", "OPTION[,OPTION]",
     "mount options: allow_other lets other users reach the volume (needs user_allow_other "
     "in /etc/fuse.conf unless root); ro is --read-only",
     &ApplyFuseOptions},
    {"--log-level", "LEVEL", "debug, info, warning, error or critical (default warning)",
     [](const std::string& v, MountOptions* o, std::string* e) {
         if (ParseLogLevel(v, &o->logLevel)) return true;
         *e = "--log-level must be debug, info, warning, error or critical, not '" + v + "'";
         return false;
     }},
    {"--log-file", "FILE", "append the log to FILE instead of standard error",
     [](const std::string& v, MountOptions* o, std::string*) {
         o->logFile = Absolute(v);
         return true;
     }},
    {"--on-upload-failure", "ACTION",
     "retry (default: retry, then save), save (to the recovery folder at once) or cancel "
     "(drop the local changes)",
     [](const std::string& v, MountOptions* o, std::string* e) {
         if (v == "retry") {
             o->upload.action = UploadFailureAction::kRetry;
         } else if (v == "save") {
             o->upload.action = UploadFailureAction::kSave;
         } else if (v == "cancel") {
             o->upload.action = UploadFailureAction::kCancel;
         } else {
             *e = "--on-upload-failure must be retry, save or cancel, not '" + v + "'";
             return false;
         }
         return true;
     }},
    {"--upload-retries", "N",
     "retries of a failed upload, after 1, 2, 4, 8... seconds, before it is saved (default 5)",
     [](const std::string& v, MountOptions* o, std::string* e) {
         char* end = nullptr;
         const long n = v.empty() || v[0] == '-' ? -1 : strtol(v.c_str(), &end, 10);
         if (n < 0 || n > 100 || end == nullptr || *end != '\0') {
             *e = "--upload-retries must be a whole number from 0 to 100, not '" + v + "'";
             return false;
         }
         o->upload.retries = static_cast<int>(n);
         return true;
     }},
    {"--recovery-dir", "DIR",
     "where data that could not be uploaded is saved (default CACHE_DIR/recovered)",
     [](const std::string& v, MountOptions* o, std::string*) {
         o->upload.recoveryDir = Absolute(v);
         return true;
     }},
    {"--password-file", "FILE",
     "network remotes: read the password from the first line of FILE, which others must not "
     "be able to read (else SKARVO_WEBDAV_PASSWORD or ~/.netrc)",
     [](const std::string& v, MountOptions* o, std::string*) {
         o->remote.passwordFile = Absolute(v);
         return true;
     }},
    {"--insecure", nullptr,
     "network remotes: accept a TLS certificate that is not trusted (self-signed)",
     [](const std::string&, MountOptions* o, std::string*) {
         o->remote.insecure = true;
         return true;
     }},
    {"--timeout", "SECONDS",
     "network remotes: time allowed to connect, and for a request without progress; fault: "
     "remotes: how long a hung call waits (default 30)",
     [](const std::string& v, MountOptions* o, std::string* e) {
         char* end = nullptr;
         const long n = v.empty() || v[0] == '-' ? -1 : strtol(v.c_str(), &end, 10);
         if (n < 1 || n > 3600 || end == nullptr || *end != '\0') {
             *e = "--timeout must be a whole number of seconds from 1 to 3600, not '" + v + "'";
             return false;
         }
         o->remote.timeoutSeconds = n;
         return true;
     }},
    {"--volname", "NAME", "volume name (default: the last part of the first remote's path)",
     [](const std::string& v, MountOptions* o, std::string* e) {
         if (v.empty()) {
             *e = "--volname must not be empty";
             return false;
         }
         o->volumeName = v;
         return true;
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
        if (IsHelp(arg)) {
            CommandLine result;
            result.action = CommandLine::Action::kHelp;
            return result;
        }
        if (IsVersion(arg)) {
            CommandLine result;
            result.action = CommandLine::Action::kVersion;
            return result;
        }
    }

    MountOptions options;
    std::vector<std::string> positional;
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        // "--name=value", "-oVALUE" and "--name value", "-o VALUE".
        std::string name = arg;
        std::string value;
        bool inlineValue = false;
        if (arg.compare(0, 2, "--") == 0) {
            const size_t equals = arg.find('=');
            if (equals != std::string::npos) {
                name = arg.substr(0, equals);
                value = arg.substr(equals + 1);
                inlineValue = true;
            }
        } else if (arg.size() > 2) {
            name = arg.substr(0, 2);
            value = arg.substr(2);
            inlineValue = true;
        }
        const OptionDef* option = FindOption(name);
        if (option == nullptr) return Fail("unknown option " + arg);
        if (option->value == nullptr) {
            if (inlineValue) return Fail("option " + name + " takes no value");
        } else if (!inlineValue) {
            if (i + 1 >= args.size()) {
                return Fail("option " + name + " needs a value (" + option->value + ")");
            }
            value = args[++i];
        }
        std::string error;
        if (!option->apply(value, &options, &error)) return Fail(error);
    }

    if (positional.empty()) {
        return Fail("no command given; usage: skarvo mount [options] REMOTE... MOUNTPOINT");
    }
    if (positional[0] != "mount") return Fail("unknown command '" + positional[0] + "'");
    if (positional.size() < 3) {
        return Fail(
            "mount needs at least one REMOTE and a MOUNTPOINT, e.g. skarvo mount "
            "local:/srv/data /mnt/data");
    }
    for (size_t i = 1; i + 1 < positional.size(); ++i) {
        RemoteArgument argument;
        std::string error;
        if (!ParseRemote(positional[i], &argument, &error)) return Fail(error);
        options.remotes.push_back(argument);
    }
    options.mountPoint = positional.back();
    if (options.mountPoint.empty()) return Fail("the mount point must not be empty");
    if (options.cacheDir.empty()) options.cacheDir = DefaultCacheDir(env);
    if (options.upload.recoveryDir.empty()) {
        options.upload.recoveryDir = options.cacheDir + "/recovered";
    }

    CommandLine result;
    result.action = CommandLine::Action::kMount;
    result.mount = std::move(options);
    return result;
}

std::string HelpText(const EnvLookup& env) {
    std::string text =
        "Usage: skarvo mount [options] REMOTE... MOUNTPOINT\n"
        "       skarvo --help | --version\n"
        "\n"
        "Mounts one volume at MOUNTPOINT whose root shows the contents of every REMOTE,\n"
        "and serves it in the foreground until Ctrl-C, SIGTERM, or an unmount from\n"
        "another shell (fusermount -u MOUNTPOINT). MOUNTPOINT must be an existing,\n"
        "empty folder.\n"
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
        "Example:\n"
        "  mkdir -p ~/mnt/data && skarvo mount local:/srv/data ~/mnt/data\n";
    return text;
}
