// The kinds of remote skarvo can mount, "SCHEME:LOCATION" on the command line.
// Every remote is parsed and opened through this one table, so a new kind of
// remote is one more row.
#ifndef SKARVO_CLI_REMOTE_SCHEMES_H_
#define SKARVO_CLI_REMOTE_SCHEMES_H_

#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "remotes/opened_remote.h"

struct RemoteScheme {
    const char* name;         // "local"
    const char* location;     // what follows the colon, for --help: "PATH"
    const char* description;  // for --help
    // Checks what `open` would refuse without opening anything, so that a
    // bad argument is found with the others; null when only opening can tell.
    Status (*check)(const std::string& location);
    // Opens the remote at `location` into *opened; fails, with one line
    // saying what is wrong, when it cannot.
    Status (*open)(const std::string& location, const RemoteOptions& options, OpenedRemote* opened);
};

// Every scheme, in the order --help lists them.
const std::vector<RemoteScheme>& RemoteSchemes();
// The scheme called `name` (exact case), or null.
const RemoteScheme* FindRemoteScheme(const std::string& name);

// One REMOTE argument, split.
struct RemoteArgument {
    std::string text;  // as given: "local:/srv/data"
    const RemoteScheme* scheme = nullptr;
    std::string location;  // "/srv/data"
    std::string name;      // "nas" for "nas:", a remote of remotes.conf; else empty
    std::string password;  // from remotes.conf; empty: the usual sources
};

// Splits "SCHEME:LOCATION" and finds the scheme. Fails, with one line, when
// there is no scheme, the scheme is unknown, the location is empty or the
// scheme's check refuses it.
Status ParseRemote(const std::string& text, RemoteArgument* argument);

// Opens a parsed remote through its scheme, into *opened.
Status OpenRemote(const RemoteArgument& argument, const RemoteOptions& options,
                  OpenedRemote* opened);

// The volume name derived from a remote's identity ("local:/srv/data" gives
// "data"): the last component of the location, or the scheme name when the
// location has none.
std::string VolumeNameFromIdentity(const std::string& identity);

#endif  // SKARVO_CLI_REMOTE_SCHEMES_H_
