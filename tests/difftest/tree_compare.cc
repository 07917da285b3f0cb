#include "tree_compare.h"

#include <fcntl.h>

#include <algorithm>
#include <iterator>

namespace difftest {
namespace {

std::string join(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
}

// Reads a whole file through a target; nullopt-like empty error on failure.
bool read_all(Target& target, const std::string& path, std::string* data) {
    Outcome opened = target.open(path, O_RDONLY);
    if (!opened.ok()) return false;
    OwnedFd fd(&target, static_cast<int>(opened.value));
    data->clear();
    constexpr size_t kChunk = 1 << 20;
    for (;;) {
        Outcome got = target.pread(fd.get(), data->size(), kChunk);
        if (!got.ok()) return false;
        data->append(got.bytes);
        if (got.bytes.size() < kChunk) return true;
    }
}

void compare_files(Target& a, Target& b, const std::string& path, std::vector<std::string>* diffs) {
    std::string da, db;
    if (!read_all(a, path, &da) || !read_all(b, path, &db)) {
        diffs->push_back(path + ": cannot be read on one side");
    } else if (da != db) {
        auto at = std::mismatch(da.begin(), da.end(), db.begin(), db.end()).first - da.begin();
        diffs->push_back(path + ": contents differ from byte " + std::to_string(at) + " (sizes " +
                         std::to_string(da.size()) + " and " + std::to_string(db.size()) + ")");
    }
}

void walk(Target& a, Target& b, const std::string& path, size_t limit,
          std::vector<std::string>* diffs) {
    Outcome la = a.list(path), lb = b.list(path);
    if (!la.ok() || !lb.ok()) {
        diffs->push_back(join(path, "") + ": folder cannot be listed on one side");
        return;
    }
    std::vector<std::string> na = sorted_names(la, true), nb = sorted_names(lb, false);
    std::vector<std::string> only_a, only_b, both;
    std::set_difference(na.begin(), na.end(), nb.begin(), nb.end(), std::back_inserter(only_a));
    std::set_difference(nb.begin(), nb.end(), na.begin(), na.end(), std::back_inserter(only_b));
    std::set_intersection(na.begin(), na.end(), nb.begin(), nb.end(), std::back_inserter(both));
    for (const auto& name : only_a)
        diffs->push_back(join(path, name) + ": only in the first tree");
    for (const auto& name : only_b)
        diffs->push_back(join(path, name) + ": only in the second tree");
    for (const auto& name : both) {
        if (diffs->size() >= limit) return;
        std::string child = join(path, name);
        Outcome sa = a.stat(child), sb = b.stat(child);
        if (!sa.ok() || !sb.ok() || sa.bytes != sb.bytes) {
            diffs->push_back(child + ": types differ (" + sa.bytes + " and " + sb.bytes + ")");
        } else if (sa.bytes == "d") {
            walk(a, b, child, limit, diffs);
        } else if (sa.bytes == "f") {
            compare_files(a, b, child, diffs);
        }
    }
}

}  // namespace

bool is_marker(const std::string& name) {
    return name == ".ql_disablethumbnails" || name == ".ql_disablecache";
}

std::vector<std::string> sorted_names(const Outcome& listing, bool drop_markers) {
    std::vector<std::string> names;
    for (const auto& name : listing.names)
        if (!drop_markers || !is_marker(name)) names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> compare_trees(Target& a, Target& b, const std::string& path,
                                       size_t limit) {
    std::vector<std::string> diffs;
    walk(a, b, path, limit, &diffs);
    if (diffs.size() > limit) diffs.resize(limit);
    return diffs;
}

}  // namespace difftest
