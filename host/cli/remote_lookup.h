// Finding a file of the volume on its remote by its path, folder by folder,
// the way the volume itself resolves names: an exact match first, then one
// that differs only in the case of ASCII letters.
#ifndef SKARVO_CLI_REMOTE_LOOKUP_H_
#define SKARVO_CLI_REMOTE_LOOKUP_H_

#include <string>

#include "libfilesystem/file_record.h"
#include "libfilesystem/protocol.h"

struct RemotePlace {
    bool folderFound = false;  // every folder on the path exists
    std::string folderKey;     // the key of the folder the file goes in
    bool fileFound = false;
    _FS_FILE_V2 file;  // its current record, when found
};

// Looks up `path` ("/Docs/a.txt", below the protocol's root). A remote that
// fails to answer gives its code; a missing folder or file is not a failure.
AERROR LookUpRemotePath(IProtocol_V2* protocol, const std::string& path, RemotePlace* place);

#endif  // SKARVO_CLI_REMOTE_LOOKUP_H_
