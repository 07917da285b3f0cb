// What the WebDAV remote last knew of the folders in use, so that polling
// them again shows what other clients changed.
//
// A folder is in use once it was listed; at most kMaxFolders are kept, the
// least recently listed or polled going first. Each keeps its entries' kind,
// size and ETag. A fresh listing compared with that gives the reports:
//   a name that came            Added
//   a name that went            Removed
//   a file whose ETag or size   Changed
//   differs
//   a kind that differs         Removed, then Added
// The remote's own changes update the entries directly (Put, Erase) and move
// the folder's generation on, so that a listing read before them is not
// taken as news: Compare and Store skip a folder whose generation moved
// since the listing was asked for. Thread safe; no lock is held by callers.
#ifndef SKARVO_REMOTES_WEBDAV_FOLDER_WATCH_H_
#define SKARVO_REMOTES_WEBDAV_FOLDER_WATCH_H_

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

struct DavItemState {
    bool folder = false;
    int64_t size = 0;
    std::string etag;

    bool operator==(const DavItemState& other) const {
        return folder == other.folder && (folder || (size == other.size && etag == other.etag));
    }
};

struct DavChange {
    enum class Kind { kAdded, kRemoved, kChanged };
    Kind kind;
    std::string name;
};

class FolderWatch {
  public:
    static constexpr size_t kMaxFolders = 64;
    using Entries = std::map<std::string, DavItemState>;

    // The folder's generation, to be handed to Store or Compare with the
    // listing asked for now.
    uint64_t Generation(const std::string& folderKey);
    // The folders in use, most recently used first.
    std::vector<std::string> Folders();

    // A listing of the folder: it becomes what is known (and the folder is
    // in use). Skipped when the generation moved.
    void Store(const std::string& folderKey, uint64_t generation, Entries entries);
    // The changes from what is known to `entries`, which then become what
    // is known. Nothing when the folder is not in use or the generation moved.
    std::vector<DavChange> Compare(const std::string& folderKey, uint64_t generation,
                                   Entries entries);

    // Changes made by this remote: the entry `name` of `folderKey` now is
    // `state`, or is gone. Both move the folder's generation on; call them
    // before and after the request that makes the change.
    void Put(const std::string& folderKey, const std::string& name, const DavItemState& state);
    void Erase(const std::string& folderKey, const std::string& name);
    void Touch(const std::string& folderKey);
    // The folder and every folder below it are no longer in use.
    void Forget(const std::string& folderKey);

  private:
    struct Folder {
        uint64_t generation = 0;
        bool known = false;  // listed since it was last forgotten
        Entries entries;
        std::list<std::string>::iterator use;
    };

    Folder& Find(const std::string& folderKey);

    std::mutex mutex_;
    std::unordered_map<std::string, Folder> folders_;
    std::list<std::string> order_;  // known folders, most recently used first
    uint64_t nextGeneration_ = 1;
};

#endif  // SKARVO_REMOTES_WEBDAV_FOLDER_WATCH_H_
