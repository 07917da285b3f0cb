#include "cli/remote_schemes.h"

#include "cli/webdav_loader.h"

#include "remotes/fault_list.h"
#include "remotes/fault_protocol.h"
#include "remotes/local_protocol.h"

namespace {

Status OpenLocal(const std::string& location, const RemoteOptions&, OpenedRemote* opened) {
    std::shared_ptr<LocalProtocol> protocol;
    const Status created = LocalProtocol::Create(location, &protocol);
    if (!created.ok()) return created;
    opened->localFolder = protocol->Root();
    opened->protocol = std::move(protocol);
    return Status::Ok();
}

Status OpenWebdav(const std::string& location, const RemoteOptions& options, OpenedRemote* opened) {
    return OpenWebdavRemote(false, location, options, opened);
}

Status OpenWebdavs(const std::string& location, const RemoteOptions& options,
                   OpenedRemote* opened) {
    return OpenWebdavRemote(true, location, options, opened);
}

// "FAULTS:REMOTE", with REMOTE parsed as any other remote argument.
Status ParseFaultLocation(const std::string& location, FaultList* faults, RemoteArgument* wrapped) {
    std::string faultsText;
    std::string remoteText;
    const auto isScheme = [](const std::string& name) { return FindRemoteScheme(name) != nullptr; };
    if (!SplitFaultLocation(location, isScheme, &faultsText, &remoteText)) {
        return Status::Error(
            "remote 'fault:" + location +
            "' must look like fault:FAULTS:REMOTE, e.g. fault:upload=0.3,seed=7:local:/srv/data");
    }
    const Status parsed = ParseFaultList(faultsText, faults);
    if (!parsed.ok()) return parsed;
    return ParseRemote(remoteText, wrapped);
}

Status CheckFault(const std::string& location) {
    FaultList faults;
    RemoteArgument wrapped;
    return ParseFaultLocation(location, &faults, &wrapped);
}

Status OpenFault(const std::string& location, const RemoteOptions& options, OpenedRemote* opened) {
    FaultList faults;
    RemoteArgument wrapped;
    Status status = ParseFaultLocation(location, &faults, &wrapped);
    if (status.ok()) status = OpenRemote(wrapped, options, opened);
    if (!status.ok()) return status;
    opened->protocol = std::make_shared<FaultProtocol>(
        std::move(opened->protocol), std::move(faults),
        std::chrono::seconds(options.timeoutSeconds), options.stopping, options.log);
    return Status::Ok();
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

Status ParseRemote(const std::string& text, RemoteArgument* argument) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0) {
        return Status::Error("remote '" + text +
                             "' must look like SCHEME:LOCATION, e.g. local:/srv/data");
    }
    const std::string name = text.substr(0, colon);
    const RemoteScheme* scheme = FindRemoteScheme(name);
    if (scheme == nullptr) {
        return Status::Error("unknown remote kind '" + name + "' in '" + text +
                             "' (known: " + SchemeNames() + ")");
    }
    if (colon + 1 == text.size()) {
        return Status::Error("remote '" + text + "' names no " + scheme->location +
                             " after the colon");
    }
    if (scheme->check != nullptr) {
        const Status checked = scheme->check(text.substr(colon + 1));
        if (!checked.ok()) return checked;
    }
    argument->text = text;
    argument->scheme = scheme;
    argument->location = text.substr(colon + 1);
    return Status::Ok();
}

Status OpenRemote(const RemoteArgument& argument, const RemoteOptions& options,
                  OpenedRemote* opened) {
    if (argument.scheme == nullptr) {
        return Status::Error("remote '" + argument.text + "' was not parsed");
    }
    if (argument.password.empty()) return argument.scheme->open(argument.location, options, opened);
    RemoteOptions withPassword = options;
    withPassword.password = argument.password;
    return argument.scheme->open(argument.location, withPassword, opened);
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
