// File records of WebDAV items: what the library is told about an entry of
// a multistatus answer.
#ifndef SKARVO_REMOTES_WEBDAV_RECORD_H_
#define SKARVO_REMOTES_WEBDAV_RECORD_H_

#include <string>

#include "libfilesystem/file_record.h"
#include "remotes/webdav_folder_watch.h"
#include "remotes/webdav_multistatus.h"

// Sets the record's key, name (the key's last segment), attributes, size (0
// for a folder), times (UTC; all three are the modification time, see the
// .cc) and `extra`: a file's ETag, empty for a folder.
void FillDavRecord(const std::string& key, const DavEntry& entry, _FS_FILE_V2* record);

// What the change poll compares of an entry.
DavItemState DavStateOf(const DavEntry& entry);

#endif  // SKARVO_REMOTES_WEBDAV_RECORD_H_
