// The file records exchanged between the library and the host's protocols.
#ifndef LIBFILESYSTEM_FILE_RECORD_H_
#define LIBFILESYSTEM_FILE_RECORD_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

// Attribute bits of a record. Bits not listed are carried unchanged.
constexpr uint32_t FILE_ATTRIBUTE_FILE = 0x1;         // regular file
constexpr uint32_t FILE_ATTRIBUTE_FOLDER = 0x2;       // folder
constexpr uint32_t FILE_ATTRIBUTE_MODIFIED = 0x10;    // cleared by every local write
constexpr uint32_t FILE_ATTRIBUTE_ROOT = 0x20;        // root of a protocol's tree
constexpr uint32_t FILE_ATTRIBUTE_ARCHIVED = 0x40;    // files: the remote keeps an archive
                                                      // mark, set again after each upload
constexpr uint32_t FILE_ATTRIBUTE_NORMAL = 0x80;      // a plain file, in attribute words
                                                      // that the volume passes to nodes
constexpr uint32_t FILE_ATTRIBUTE_NO_DELETE = 0x100;  // files: never deleted remotely;
                                                      // also the offline-only mark
constexpr uint32_t FILE_ATTRIBUTE_WRITABLE = 0x200;   // attributes show write for others

// One remote item as a protocol describes it. The layout is shared with host
// protocols compiled separately, so fields keep this order and these widths,
// and the record has no virtual functions: `key` starts the record. No one
// deletes a record through a pointer to a base record.
//   key         the item's identifier as the protocol knows it; handed back
//               in every call that names the item
//   attributes  FILE_ATTRIBUTE_* bits
//   size        size in bytes
//   createTime, accessTime, modifyTime
//               RFC 3339 texts such as "2024-01-05T07:08:09.000Z"
//   name        the item's name in its folder: one path component in UTF-8.
//               The library refuses records whose name is empty, "." or "..",
//               or contains "/" or a NUL byte.
//   context     the protocol's own per-item object; the library never looks
//               inside, it only hands it back (handles carry it, _FS_HANDLE)
struct _FS_FILE_V1 {
    std::string key;
    uint32_t attributes = 0;
    int64_t size = 0;
    std::string createTime;
    std::string accessTime;
    std::string modifyTime;
    std::string name;
    std::shared_ptr<void> context;

    _FS_FILE_V1() = default;
    _FS_FILE_V1(const _FS_FILE_V1&) = default;
    _FS_FILE_V1& operator=(const _FS_FILE_V1&) = default;
    ~_FS_FILE_V1() = default;
};

// A record with two opaque fields that a protocol may fill for itself; the
// library copies them whole. Copies share `context`, never deep-copy it.
struct _FS_FILE_V2 : _FS_FILE_V1 {
    std::deque<std::string> values;
    std::string extra;

    _FS_FILE_V2() = default;
    _FS_FILE_V2(const _FS_FILE_V2&) = default;
    _FS_FILE_V2& operator=(const _FS_FILE_V2&) = default;
};

#endif  // LIBFILESYSTEM_FILE_RECORD_H_
