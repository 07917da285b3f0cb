// Safe access to the items below the remote folder of a local: remote.
//
// Keys. The root folder's key is "/"; every other item's key is its path
// below the folder with a leading "/" ("/docs/a.txt"). A key is split into
// names and each name must pass IsValidItemName, so "", ".", "..", names
// with "/" or NUL, and the reserved temporary names never reach the disk.
//
// Resolution. A key is resolved name by name from a directory descriptor of
// the remote folder with openat(O_DIRECTORY | O_NOFOLLOW), and the last name
// is then used with the *at calls and AT_SYMLINK_NOFOLLOW / O_NOFOLLOW. No
// symbolic link is ever followed, so no key can reach outside the folder,
// even while other programs change the tree.
//
// Symbolic links and special files (devices, pipes, sockets) are not items:
// listings skip them and a key naming or crossing one is ACCESS_DENIED.
// Links that point inside the folder are skipped too: telling inside from
// outside would mean resolving them, which is exactly what is avoided here.
#ifndef SKARVO_REMOTES_LOCAL_PATHS_H_
#define SKARVO_REMOTES_LOCAL_PATHS_H_

#include <sys/stat.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "libfilesystem/unique_fd.h"
#include "remotes/local_errors.h"

constexpr char kLocalRootKey[] = "/";
// Names of the hidden files that uploads write before renaming them into
// place. They are never listed, reported or accepted from the volume.
constexpr char kTemporaryPrefix[] = ".skarvo-upload-";

// Upload temporary files are locked (flock) by the upload writing them.
// Removes `name` in `dirfd` when nothing holds that lock: its upload died
// with its process.
void RemoveAbandonedTemporary(int dirfd, const std::string& name);

bool IsTemporaryName(std::string_view name);
// A single name an item may have: not empty, ".", "..", not longer than
// NAME_MAX, without "/" or NUL, and not a temporary upload name.
bool IsValidItemName(std::string_view name);
// The key of the entry `name` of the folder `folderKey`.
std::string JoinKey(const std::string& folderKey, const std::string& name);
// The key of the folder that holds `key` ("/" for the root's children).
std::string ParentKey(const std::string& key);
// Whether `key` is `ancestor` or lies below it.
bool IsSameOrBelow(const std::string& key, const std::string& ancestor);

// One entry of a folder, as lstat saw it.
struct LocalEntry {
    std::string name;
    struct stat st {};
};

class LocalPaths {
  public:
    // Opens the remote folder `path` into *opened. Fails, saying why, when it
    // is missing, not a folder, or not readable, writable and searchable.
    static Status Open(const std::string& path, std::shared_ptr<LocalPaths>* opened);

    // The canonical absolute path of the remote folder.
    const std::string& Root() const { return root_; }
    int RootFd() const { return rootFd_.Get(); }

    // Opens the folder `key` for reading. A missing folder gives `missing`
    // (FILE_NOT_FOUND when the folder is the item asked for, PATH_NOT_FOUND
    // when it is where something is to happen); a file gives INVALID_DIRECTORY.
    Status OpenFolder(const std::string& key, AERROR missing, UniqueFd* out) const;
    // Opens the folder holding `key` and gives the item's own name. The root
    // has no parent: ACCESS_DENIED.
    Status OpenParent(const std::string& key, UniqueFd* parent, std::string* name) const;
    // lstat of the item `key`; the root included.
    Status StatKey(const std::string& key, struct stat* st) const;

    // lstat of `name` in `dirfd` for the item `key`: FILE_NOT_FOUND when it
    // is missing, ACCESS_DENIED unless it is a regular file or a folder.
    static Status StatItem(int dirfd, const std::string& name, const std::string& key,
                           struct stat* st);
    // Opens the folder `name` of `dirfd` (the item `key`) without following
    // a link. Missing: `missing`; not a folder: `notFolder`; a link: ACCESS_DENIED.
    static Status OpenSubfolder(int dirfd, const std::string& name, const std::string& key,
                                AERROR missing, AERROR notFolder, UniqueFd* out);
    // Every name in the folder `dirfd` except "." and "..".
    static Status ReadNames(int dirfd, const std::string& key, std::vector<std::string>* names);
    // The items of the folder `dirfd`: regular files and folders with valid
    // names. Entries that vanish while they are read are left out.
    static Status ReadItems(int dirfd, const std::string& key, std::vector<LocalEntry>* items);
    // Deletes the folder `name` of `dirfd` with everything in it. Links are
    // removed themselves, never followed.
    static Status RemoveTree(int dirfd, const std::string& name, const std::string& key);

  private:
    LocalPaths(std::string root, UniqueFd rootFd)
        : root_(std::move(root)), rootFd_(std::move(rootFd)) {}
    // Opens the folder named by the first `count` names of `names`.
    Status Walk(const std::vector<std::string>& names, size_t count, const std::string& key,
                AERROR missingLast, UniqueFd* out) const;

    const std::string root_;
    const UniqueFd rootFd_;
};

#endif  // SKARVO_REMOTES_LOCAL_PATHS_H_
