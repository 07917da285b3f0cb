// A folder's child as a listing found it when it began.
#ifndef LIBFS_TREE_LISTED_CHILD_H_
#define LIBFS_TREE_LISTED_CHILD_H_

#include <memory>
#include <string>
#include <unordered_map>

class File;

struct ListedChild {
    std::shared_ptr<File> node;
    std::string key;  // the node's remote key when the listing began
};
using ListedChildren = std::unordered_map<std::string, ListedChild>;  // by folded name

#endif  // LIBFS_TREE_LISTED_CHILD_H_
