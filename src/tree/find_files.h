// The listing job of one folder.
#ifndef LIBFS_TREE_FIND_FILES_H_
#define LIBFS_TREE_FIND_FILES_H_

#include <memory>
#include <string>
#include <unordered_map>

#include "libfilesystem/async.h"
#include "libfilesystem/protocol.h"
#include "tree/listed_child.h"

class File;

// Lists a folder from its protocol and merges the listing into the tree:
// new names become nodes, known names update their node, and nodes the
// listing no longer reports leave the tree (except those never stored
// remotely, such as the folder's marker files). A failed listing leaves the
// tree as it was.
class FindFiles : public IFileList,
                  public IAsyncObj,
                  public std::enable_shared_from_this<FindFiles> {
  public:
    explicit FindFiles(std::shared_ptr<File> folder);

    AERROR AddFile(const _FS_FILE_V2* record) override;
    void Process(void* context) override;
    void Canceled(void* context) override;

    // The listing's outcome, once Process has run.
    AERROR Result() const { return result_; }
    // A job that runs on the host's queue rather than on the caller's thread.
    void SetBackground() { background_ = true; }
    bool IsBackground() const { return background_; }

  private:
    static constexpr int kListRetries = 4;
    AERROR ListOnce(IProtocol_V2* protocol, void** cookie);

    using Nodes = std::unordered_map<std::string, std::shared_ptr<File>>;

    std::shared_ptr<File> folder_;
    bool reportsChanges_ = false;
    ListedChildren unseen_;  // children the listing has not reported yet
    Nodes added_;            // nodes made for names the folder did not have
    AERROR result_ = SUCCESS;
    bool background_ = false;
};

#endif  // LIBFS_TREE_FIND_FILES_H_
