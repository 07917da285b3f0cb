// Named remotes: $XDG_CONFIG_HOME/skarvo/remotes.conf (else
// ~/.config/skarvo/remotes.conf) names remotes, so that "skarvo mount nas:
// /mnt/nas" mounts one. The file is a list of sections:
//
//   # comments start with # or ;
//   [nas]
//   type = webdav                  # webdav (http:// or https://) or local
//   url = https://nas.example.org/files
//   user = alice
//   password = secret              # only in a file that only its owner may read
//   cache-max-size = 2G            # any long option of skarvo mount
//   read-only = true               # flags: true or false
//
//   [photos]
//   type = local
//   path = /srv/photos
//
// A section's options come before the command line's, which win.
#ifndef SKARVO_CLI_NAMED_REMOTES_H_
#define SKARVO_CLI_NAMED_REMOTES_H_

#include <string>
#include <utility>
#include <vector>

#include "cli/options.h"

struct NamedRemote {
    std::string name;      // the section: "nas"
    std::string type;      // "local" or "webdav"
    std::string location;  // the path, or the url
    std::string user;
    std::string password;                                      // never printed
    std::vector<std::pair<std::string, std::string>> options;  // long option, value
};

struct RemotesFile {
    std::string path;
    std::vector<NamedRemote> remotes;
    bool holdsPasswords = false;
    bool othersMayRead = false;  // the group or others may read or write it
};

// Where the file is: $XDG_CONFIG_HOME when absolute, else $HOME/.config.
std::string RemotesFilePath(const EnvLookup& env);

// Reads the file at `path`; a missing file holds no remotes. Fails, with
// one line naming FILE:LINE, for a line it does not understand, a
// key it does not know, a value an option refuses, or a section without
// what its type needs.
Status ReadRemotesFile(const std::string& path, RemotesFile* file);

// The remote argument for a named remote: "local:/srv/photos",
// "webdavs://alice@nas.example.org/files".
std::string RemoteText(const NamedRemote& remote);

// Replaces every "NAME:" remote of *command (parsed from `args`) by the
// remote it names, with its password, and applies the sections' options
// under the command line's. Fails, with one line, when the file
// cannot be read, names no such remote, or holds passwords that others may
// read.
Status ResolveNamedRemotes(const std::vector<std::string>& args, const EnvLookup& env,
                           CommandLine* command);

// The text of "skarvo remotes": one line a remote, without any secret.
std::string ListRemotes(const RemotesFile& file);

#endif  // SKARVO_CLI_NAMED_REMOTES_H_
