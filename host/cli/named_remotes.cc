#include "cli/named_remotes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include "cli/remote_schemes.h"

namespace {

std::string Trim(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

bool IsName(const std::string& name) {
    return !name.empty() &&
           name.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
               std::string::npos &&
           FindRemoteScheme(name) == nullptr;
}

// Stores one "key = value" line in `remote`, or says what is wrong.
Status Store(const std::string& key, const std::string& value, NamedRemote* remote) {
    std::string* field = key == "type"                   ? &remote->type
                         : key == "path" || key == "url" ? &remote->location
                         : key == "user"                 ? &remote->user
                         : key == "password"             ? &remote->password
                                                         : nullptr;
    if (field != nullptr) {
        *field = value;
        return Status::Ok();
    }
    MountOptions scratch;
    if (IsFlagOption(key)) {
        if (value != "true" && value != "false") {
            return Status::Error(key + " must be true or false, not '" + value + "'");
        }
    } else {
        const Status applied = ApplyLongOption(key, value, &scratch);
        if (!applied.ok()) return applied;
    }
    remote->options.emplace_back(key, value);
    return Status::Ok();
}

// What a finished section lacks; empty when it is complete.
std::string Incomplete(const NamedRemote& remote) {
    if (remote.type == "local") {
        return remote.location.empty() || remote.location[0] != '/'
                   ? "type local needs a path from / (path = /srv/data)"
                   : "";
    }
    if (remote.type == "webdav") {
        const bool http = remote.location.compare(0, 7, "http://") == 0 ||
                          remote.location.compare(0, 8, "https://") == 0;
        if (!http) return "type webdav needs a url starting with http:// or https://";
        const std::string authority = remote.location.substr(0, remote.location.find('/', 8));
        const size_t at = authority.find('@');
        if (at != std::string::npos && authority.find(':', 8) < at) {
            return "the url holds a password; give it on a password line instead";
        }
        return "";
    }
    return "type must be local or webdav, not '" + remote.type + "'";
}

// Opens the section of a "[NAME]" line, or says what is wrong.
Status StartSection(const std::string& line, RemotesFile* file) {
    const std::string name = Trim(line.substr(1, line.size() - 2));
    if (!IsName(name)) {
        return Status::Error(
            "'" + name + "' cannot name a remote (letters, digits, . _ -; not a kind of remote)");
    }
    for (const NamedRemote& other : file->remotes) {
        if (other.name == name) {
            return Status::Error("remote '" + name + "' is named twice");
        }
    }
    file->remotes.push_back(NamedRemote{name, "", "", "", "", {}});
    return Status::Ok();
}

// Every section must have what its type needs; `starts` holds their lines.
Status CheckSections(const std::vector<int>& starts, RemotesFile* file) {
    for (size_t i = 0; i < file->remotes.size(); ++i) {
        const std::string lack = Incomplete(file->remotes[i]);
        if (!lack.empty()) {
            return Status::Error(file->path + ":" + std::to_string(starts[i]) + ": [" +
                                 file->remotes[i].name + "]: " + lack);
        }
        if (!file->remotes[i].password.empty()) file->holdsPasswords = true;
    }
    return Status::Ok();
}

Status ReadLines(std::istream& in, RemotesFile* file) {
    std::set<std::string> keys;  // of the current section
    std::vector<int> starts;
    int number = 0;
    for (std::string raw; std::getline(in, raw);) {
        ++number;
        const std::string line = Trim(raw);
        const std::string where = file->path + ":" + std::to_string(number) + ": ";
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        std::string refused;
        if (line.front() == '[' && line.back() == ']') {
            const Status started = StartSection(line, file);
            if (!started.ok()) return Status::Error(where + started.message());
            starts.push_back(number);
            keys.clear();
            continue;
        }
        const size_t equals = line.find('=');
        const std::string key = Trim(line.substr(0, equals));
        if (equals == std::string::npos) {
            refused = "expected [NAME] or KEY = VALUE";
        } else if (file->remotes.empty()) {
            refused = key + " stands before the first [NAME]";
        } else if (!keys.insert(key).second) {
            refused = key + " is given twice";
        } else {
            refused = Store(key, Trim(line.substr(equals + 1)), &file->remotes.back()).message();
        }
        if (!refused.empty()) {
            return Status::Error(where + refused);
        }
    }
    return CheckSections(starts, file);
}

const NamedRemote* Find(const RemotesFile& file, const std::string& name) {
    for (const NamedRemote& remote : file.remotes) {
        if (remote.name == name) return &remote;
    }
    return nullptr;
}

// The sections' options as command-line arguments, before the others.
std::vector<std::string> WithSectionOptions(const std::vector<std::string>& args,
                                            const RemotesFile& file,
                                            const std::vector<RemoteArgument>& remotes) {
    std::vector<std::string> result;
    for (const RemoteArgument& argument : remotes) {
        const NamedRemote* remote = argument.name.empty() ? nullptr : Find(file, argument.name);
        if (remote == nullptr) continue;
        for (const auto& [key, value] : remote->options) {
            if (!IsFlagOption(key)) {
                result.push_back("--" + key + "=" + value);
            } else if (value == "true") {
                result.push_back("--" + key);
            }
        }
    }
    result.insert(result.end(), args.begin(), args.end());
    return result;
}

}  // namespace

std::string RemotesFilePath(const EnvLookup& env) {
    const char* xdg = env("XDG_CONFIG_HOME");
    if (xdg != nullptr && xdg[0] == '/') return std::string(xdg) + "/skarvo/remotes.conf";
    const char* home = env("HOME");
    return std::string(home != nullptr ? home : "") + "/.config/skarvo/remotes.conf";
}

Status ReadRemotesFile(const std::string& path, RemotesFile* file) {
    file->path = path;
    std::ifstream in(path);
    if (!in) {
        if (errno == ENOENT) return Status::Ok();
        return Status::Error("cannot read " + path + ": " + strerror(errno));
    }
    struct stat info {};
    if (stat(path.c_str(), &info) == 0) file->othersMayRead = (info.st_mode & 077) != 0;
    return ReadLines(in, file);
}

std::string RemoteText(const NamedRemote& remote) {
    if (remote.type == "local") return "local:" + remote.location;
    const bool tls = remote.location.compare(0, 8, "https://") == 0;
    std::string rest = remote.location.substr(tls ? 8 : 7);
    const std::string authority = rest.substr(0, rest.find('/'));
    if (!remote.user.empty() && authority.find('@') == std::string::npos) {
        rest = remote.user + "@" + rest;
    }
    return std::string(tls ? "webdavs://" : "webdav://") + rest;
}

Status ResolveNamedRemotes(const std::vector<std::string>& args, const EnvLookup& env,
                           CommandLine* command) {
    std::vector<RemoteArgument>& remotes = command->mount.remotes;
    bool named = false;
    for (const RemoteArgument& argument : remotes)
        named = named || !argument.name.empty();
    if (!named) return Status::Ok();
    RemotesFile file;
    const Status read = ReadRemotesFile(RemotesFilePath(env), &file);
    if (!read.ok()) return read;
    if (file.holdsPasswords && file.othersMayRead) {
        return Status::Error(file.path +
                             " holds passwords but others may read it; make it private with " +
                             "chmod 600 " + file.path);
    }
    for (const RemoteArgument& argument : remotes) {
        if (!argument.name.empty() && Find(file, argument.name) == nullptr) {
            return Status::Error("no remote named '" + argument.name + "' in " + file.path +
                                 " (skarvo remotes lists them)");
        }
    }
    const CommandLine again = ParseCommandLine(WithSectionOptions(args, file, remotes), env);
    if (again.action != CommandLine::Action::kMount) {
        return Status::Error(again.error);
    }
    *command = again;
    for (RemoteArgument& argument : command->mount.remotes) {
        if (argument.name.empty()) continue;
        const NamedRemote& remote = *Find(file, argument.name);
        const std::string name = argument.name;
        const Status parsed = ParseRemote(RemoteText(remote), &argument);
        if (!parsed.ok()) return parsed;
        argument.name = name;
        argument.password = remote.password;
    }
    return Status::Ok();
}

std::string ListRemotes(const RemotesFile& file) {
    std::string text;
    for (const NamedRemote& remote : file.remotes) {
        text += remote.name + ":\t" + RemoteText(remote);
        if (!remote.password.empty()) text += "\t(password in the file)";
        text += "\n";
    }
    return text;
}
