// The record a file node keeps of its remote item.
#ifndef LIBFS_TREE_FILE_RECORDS_H_
#define LIBFS_TREE_FILE_RECORDS_H_

#include <cstdint>
#include <string>

#include "libfilesystem/file_record.h"

// A protocol's record plus what the node learned when it last took one.
struct _FS_FILE_EXT : _FS_FILE_V2 {
    // The `size` the record had when it was last assigned from a protocol's
    // record; a local write changes `size` but not this.
    int64_t knownSize = 0;

    _FS_FILE_EXT() = default;
    _FS_FILE_EXT& operator=(const _FS_FILE_V2& source) {
        static_cast<_FS_FILE_V1&>(*this) = static_cast<const _FS_FILE_V1&>(source);
        if (static_cast<const _FS_FILE_V2*>(this) != &source) values = source.values;
        extra = source.extra;
        knownSize = source.size;
        return *this;
    }
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
