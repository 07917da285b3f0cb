// Making a folder together with its missing parents, and making the names
// in a folder durable.
#ifndef SKARVO_SERVICES_MAKE_DIRS_H_
#define SKARVO_SERVICES_MAKE_DIRS_H_

#include <string>

#include "common/status.h"

// Creates `path` and its missing parents, private to the user (0700); a
// folder that exists already is left as it is. Fails with "cannot create
// PART: REASON", or "PATH is not a folder" when something else stands there.
Status MakeDirs(const std::string& path);

// Syncs the folder `path`, so that the names made in it survive a power cut;
// false, with errno set, when that failed.
bool SyncFolder(const std::string& path);

#endif  // SKARVO_SERVICES_MAKE_DIRS_H_
