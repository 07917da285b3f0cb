// Remote keys of listed items, kept on a protocol's root so that change
// reports can find the nodes they name. The index has a lock of its own, so
// that reports never hold a tree lock while taking another.
#ifndef LIBFS_TREE_KEY_INDEX_H_
#define LIBFS_TREE_KEY_INDEX_H_

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

class File;

class KeyIndex {
  public:
    KeyIndex() { nodes_.max_load_factor(1.0); }
    void Add(const std::string& key, std::shared_ptr<File> file);
    void Remove(const std::string& key);
    // The node indexed under `key`, when it still names that item.
    std::shared_ptr<File> Find(const std::string& key);
    void Clear();

  private:
    std::mutex lock_;
    // Weak, so that a node indexed after teardown cleared the index (an
    // upload that ends late) never keeps the tree alive.
    std::unordered_map<std::string, std::weak_ptr<File>> nodes_;  // guarded by lock_
};

#endif  // LIBFS_TREE_KEY_INDEX_H_
