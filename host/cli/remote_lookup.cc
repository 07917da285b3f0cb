#include "cli/remote_lookup.h"

#include <strings.h>

#include <vector>

#include "remotes/path_parts.h"

namespace {

class CollectedList : public IFileList {
  public:
    AERROR AddFile(const _FS_FILE_V2* record) override {
        if (record != nullptr) records.push_back(*record);
        return SUCCESS;
    }
    std::vector<_FS_FILE_V2> records;
};

// The entry called `name` in the folder `key`: exact first, then ignoring case.
AERROR FindEntry(IProtocol_V2* protocol, const std::string& key, const std::string& name,
                 bool* found, _FS_FILE_V2* entry) {
    CollectedList list;
    void* cookie = nullptr;
    const AERROR listed = protocol->ListFolder(key.c_str(), &list, &cookie);
    if (cookie != nullptr) protocol->ReleaseCookie(cookie);
    *found = false;
    if (listed != SUCCESS) return listed;
    for (const _FS_FILE_V2& record : list.records) {
        if (record.name == name) {
            *entry = record;
            *found = true;
            return SUCCESS;
        }
    }
    for (const _FS_FILE_V2& record : list.records) {
        if (strcasecmp(record.name.c_str(), name.c_str()) == 0) {
            *entry = record;
            *found = true;
            return SUCCESS;
        }
    }
    return SUCCESS;
}

}  // namespace

AERROR LookUpRemotePath(IProtocol_V2* protocol, const std::string& path, RemotePlace* place) {
    *place = RemotePlace();
    const std::vector<std::string> names = SplitPath(path);
    if (names.empty()) return INVALID_PARAMETER;
    char root[4096] = "";
    unsigned long length = sizeof(root);
    const AERROR rooted = protocol->GetRootKey(root, &length);
    if (rooted != SUCCESS) return rooted;
    std::string folder = root;
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        bool found = false;
        _FS_FILE_V2 entry;
        const AERROR result = FindEntry(protocol, folder, names[i], &found, &entry);
        if (result != SUCCESS) return result;
        if (!found || (entry.attributes & FILE_ATTRIBUTE_FOLDER) == 0) return SUCCESS;
        folder = entry.key;
    }
    place->folderFound = true;
    place->folderKey = folder;
    return FindEntry(protocol, folder, names.back(), &place->fileFound, &place->file);
}
