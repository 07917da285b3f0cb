// File records of local items: what the library is told about a file or a
// folder below the remote folder.
#ifndef SKARVO_REMOTES_LOCAL_RECORD_H_
#define SKARVO_REMOTES_LOCAL_RECORD_H_

#include <sys/stat.h>
#include <time.h>

#include <string>

#include "libfilesystem/file_record.h"
#include "remotes/local_errors.h"

class LocalPaths;

// A time as the records carry it: UTC, "2024-01-05T07:08:09.000Z".
std::string FormatRecordTime(const struct timespec& time);

// Sets the record's key, name, attributes (FILE_ATTRIBUTE_FILE or
// FILE_ATTRIBUTE_FOLDER), size (0 for a folder) and its three times from
// `st`: createTime from the modification time, accessTime, modifyTime. The
// record's other fields are left as they are.
void FillRecord(const std::string& key, const std::string& name, const struct stat& st,
                _FS_FILE_V2* record);

// The current record of the item `key`; the root's name is empty.
Status ReadRecord(const LocalPaths& paths, const std::string& key, _FS_FILE_V2* record);

#endif  // SKARVO_REMOTES_LOCAL_RECORD_H_
