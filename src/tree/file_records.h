// The record a file node keeps of its remote item.
#ifndef LIBFS_TREE_FILE_RECORDS_H_
#define LIBFS_TREE_FILE_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "libfilesystem/file_record.h"

// What a node keeps of its remote item: the protocol's record, plus what the
// node learned when it last took one. Built on _FS_FILE_V1, not _FS_FILE_V2:
// that record's `values` is a deque, whose empty state already holds 576
// bytes of heap, and every node keeps one of these for as long as it lives
// (5.9 of the 19.5 MB of heap a listing of 10,000 entries took).
struct _FS_FILE_EXT : _FS_FILE_V1 {
    std::vector<std::string> values;
    std::string extra;
    // The `size` the record had when it was last assigned from a protocol's
    // record; a local write changes `size` but not this.
    int64_t knownSize = 0;

    _FS_FILE_EXT() = default;
    _FS_FILE_EXT& operator=(const _FS_FILE_V2& source);
    // The record in the form protocols and hosts take.
    _FS_FILE_V2 Record() const;
    // Names the remote content the record describes, for a cache to keep
    // with its clean data: the fields whose change makes a fresh record count
    // as new content (File::Update).
    std::string ContentVersion() const {
        return std::to_string(knownSize) + " " + modifyTime + " " + extra;
    }
};

// Whether a protocol's record may become a node: its name must be one path
// component. Names come from remote servers and are not trusted.
bool IsAcceptableName(const std::string& name);
// Whether libfuse gave `name` to a file unlinked while open; such files are
// never listed.
bool IsHiddenByFuse(const std::string& name);
// The same test for a whole record, logging the refusal.
bool AcceptRecord(const _FS_FILE_V2& record);

#endif  // LIBFS_TREE_FILE_RECORDS_H_
