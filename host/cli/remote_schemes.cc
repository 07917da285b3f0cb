#include "cli/remote_schemes.h"

#include "remotes/fault_list.h"
#include "remotes/fault_protocol.h"
#include "remotes/local_protocol.h"
#include "remotes/webdav_password.h"
#include "remotes/webdav_protocol.h"

namespace {

OpenedRemote OpenLocal(const std::string& location, const RemoteOptions&, std::string* error) {
    OpenedRemote opened;
    std::shared_ptr<LocalProtocol> protocol = LocalProtocol::Create(location, error);
    if (protocol == nullptr) return opened;
    opened.localFolder = protocol->Root();
    opened.protocol = std::move(protocol);
    return opened;
}

// Opens a share and checks it answers, so that a wrong password or an
// untrusted certificate stops the mount at once with the server's answer.
OpenedRemote OpenWebdavShare(bool tls, const std::string& location, const RemoteOptions& options,
                             std::string* error) {
    OpenedRemote opened;
    WebdavAddress address;
    if (!ParseWebdavAddress(tls, location, &address, error)) return opened;
    HttpSettings settings;
    settings.user = address.user;
    if (!LoadWebdavPassword(options.passwordFile, &settings.password, error)) return opened;
    settings.insecure = options.insecure;
    settings.timeoutSeconds = options.timeoutSeconds;
    settings.log = options.log;
    auto protocol = std::make_shared<WebdavProtocol>(std::move(address), std::move(settings));
    if (!protocol->Check(error)) return opened;
    opened.protocol = std::move(protocol);
    return opened;
}

OpenedRemote OpenWebdav(const std::string& location, const RemoteOptions& options,
                        std::string* error) {
    return OpenWebdavShare(false, location, options, error);
}

OpenedRemote OpenWebdavs(const std::string& location, const RemoteOptions& options,
                         std::string* error) {
    return OpenWebdavShare(true, location, options, error);
}

// "FAULTS:REMOTE", with REMOTE parsed as any other remote argument.
bool ParseFaultLocation(const std::string& location, FaultList* faults, RemoteArgument* wrapped,
                        std::string* error) {
    std::string faultsText;
    std::string remoteText;
    const auto isScheme = [](const std::string& name) { return FindRemoteScheme(name) != nullptr; };
    if (!SplitFaultLocation(location, isScheme, &faultsText, &remoteText)) {
        *error =
            "remote 'fault:" + location +
            "' must look like fault:FAULTS:REMOTE, e.g. fault:upload=0.3,seed=7:local:/srv/data";
        return false;
    }
    return ParseFaultList(faultsText, faults, error) && ParseRemote(remoteText, wrapped, error);
}

bool CheckFault(const std::string& location, std::string* error) {
    FaultList faults;
    RemoteArgument wrapped;
    return ParseFaultLocation(location, &faults, &wrapped, error);
}

OpenedRemote OpenFault(const std::string& location, const RemoteOptions& options,
                       std::string* error) {
    FaultList faults;
    RemoteArgument wrapped;
    if (!ParseFaultLocation(location, &faults, &wrapped, error)) return OpenedRemote();
    OpenedRemote opened = OpenRemote(wrapped, options, error);
    if (!opened.protocol) return opened;
    opened.protocol = std::make_shared<FaultProtocol>(std::move(opened.protocol), std::move(faults),
                                                      std::chrono::seconds(options.timeoutSeconds),
                                                      options.stopping, options.log);
    return opened;
}

std::string SchemeNames() {
    std::string names;
    for (const RemoteScheme& scheme : RemoteSchemes()) {
        if (!names.empty()) names += ", ";
        names += scheme.name;
    }
    return names;
}

}  // namespace

const std::vector<RemoteScheme>& RemoteSchemes() {
    static const std::vector<RemoteScheme> kSchemes = {
        {"local", "PATH", "a folder of this machine, served as if it were remote storage", nullptr,
         &OpenLocal},
        {"webdav", "//[USER@]HOST[:PORT]/PATH",
         "a folder of a WebDAV server over plain HTTP; the password comes from ~/.netrc, "
         "SKARVO_WEBDAV_PASSWORD or --password-file",
         nullptr, &OpenWebdav},
        {"webdavs", "//[USER@]HOST[:PORT]/PATH", "the same over TLS (HTTPS)", nullptr,
         &OpenWebdavs},
        {"fault", "FAULTS:REMOTE",
         "testing aid: REMOTE (any of the above) with failures, delays and hangs injected. "
         "FAULTS is a comma-separated list of OP=FRACTION[:ERROR] (fail that share of OP's "
         "calls with the error of that name, default SOCK_REMOTE_HOST_CLOSED), "
         "latency=[OP:]DURATION (20ms, 2s), hang=OP (until --timeout, then SOCK_TIMEOUT) and "
         "seed=N; OP is list, get, download, upload, mkdir, delete, rename, move, changes, "
         "quota, settime or all. E.g. fault:upload=0.3,seed=7:local:/srv/data",
         &CheckFault, &OpenFault},
    };
    return kSchemes;
}

const RemoteScheme* FindRemoteScheme(const std::string& name) {
    for (const RemoteScheme& scheme : RemoteSchemes()) {
        if (name == scheme.name) return &scheme;
    }
    return nullptr;
}

bool ParseRemote(const std::string& text, RemoteArgument* argument, std::string* error) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0) {
        if (error != nullptr) {
            *error = "remote '" + text + "' must look like SCHEME:LOCATION, e.g. local:/srv/data";
        }
        return false;
    }
    const std::string name = text.substr(0, colon);
    const RemoteScheme* scheme = FindRemoteScheme(name);
    if (scheme == nullptr) {
        if (error != nullptr) {
            *error = "unknown remote kind '" + name + "' in '" + text +
                     "' (known: " + SchemeNames() + ")";
        }
        return false;
    }
    if (colon + 1 == text.size()) {
        if (error != nullptr) {
            *error = "remote '" + text + "' names no " + scheme->location + " after the colon";
        }
        return false;
    }
    std::string refused;
    if (scheme->check != nullptr && !scheme->check(text.substr(colon + 1), &refused)) {
        if (error != nullptr) *error = refused;
        return false;
    }
    argument->text = text;
    argument->scheme = scheme;
    argument->location = text.substr(colon + 1);
    return true;
}

OpenedRemote OpenRemote(const RemoteArgument& argument, const RemoteOptions& options,
                        std::string* error) {
    if (argument.scheme == nullptr) {
        if (error != nullptr) *error = "remote '" + argument.text + "' was not parsed";
        return OpenedRemote();
    }
    return argument.scheme->open(argument.location, options, error);
}

std::string VolumeNameFromIdentity(const std::string& identity) {
    const size_t colon = identity.find(':');
    const std::string scheme = colon == std::string::npos ? "" : identity.substr(0, colon);
    std::string location = colon == std::string::npos ? identity : identity.substr(colon + 1);
    while (!location.empty() && location.back() == '/')
        location.pop_back();
    const size_t slash = location.rfind('/');
    std::string name = slash == std::string::npos ? location : location.substr(slash + 1);
    if (name.empty()) name = scheme;
    return name.empty() ? "skarvo" : name;
}
