#include "engine.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tree_compare.h"

namespace difftest {
namespace {

bool under(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path[folder.size()] == '/' &&
           same_folded(path.substr(0, folder.size()), folder);
}

std::string describe(const Outcome& out) {
    if (!out.ok()) return std::string(strerrorname_np(out.err) ? strerrorname_np(out.err) : "?");
    return std::to_string(out.value);
}

std::string compare_bytes(const std::string& a, const std::string& b) {
    auto at = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
    return "bytes differ from offset " + std::to_string(at) + " (volume read " +
           std::to_string(a.size()) + ", reference " + std::to_string(b.size()) + ")";
}

// How two answers to the same operation differ, if they do.
std::optional<std::string> compare(Kind kind, const Outcome& a, const Outcome& b) {
    bool values_count = kind != Kind::kOpen && kind != Kind::kList;
    if (a.err != b.err || (values_count && a.value != b.value))
        return "volume answered " + describe(a) + ", reference " + describe(b);
    if (kind == Kind::kList && sorted_names(a, true) != sorted_names(b, false)) {
        std::string out = "listings differ: volume has";
        for (const auto& n : sorted_names(a, true))
            out += " '" + n + "'";
        out += "; reference has";
        for (const auto& n : sorted_names(b, false))
            out += " '" + n + "'";
        return out;
    }
    if (a.bytes != b.bytes)
        return kind == Kind::kStat ? "types differ: " + a.bytes + " and " + b.bytes
                                   : compare_bytes(a.bytes, b.bytes);
    return std::nullopt;
}

// Runs an operation that names no descriptor on one side.
Outcome apply_path(Target& t, const Op& op, const std::string& path, const std::string& path2) {
    switch (op.kind) {
        case Kind::kTruncate:
            return t.truncate(path, op.offset);
        case Kind::kStat:
            return t.stat(path);
        case Kind::kRename:
            return t.rename(path, path2);
        case Kind::kMkdir:
            return t.mkdir(path);
        case Kind::kRmdir:
            return t.rmdir(path);
        case Kind::kUnlink:
            return t.unlink(path);
        default:
            return t.list(path);
    }
}

// Runs an operation on a descriptor on one side; `size` is the file's size
// for a mapped read (negative: ask the descriptor).
Outcome apply_fd(Target& t, const Op& op, int fd, const std::string& data, int64_t size) {
    switch (op.kind) {
        case Kind::kPread:
            return t.pread(fd, op.offset, op.length);
        case Kind::kPwrite:
            return t.pwrite(fd, op.offset, data);
        case Kind::kWrite:
            return t.write(fd, data);
        case Kind::kFtruncate:
            return t.ftruncate(fd, op.offset);
        case Kind::kFsync:
            return t.fsync(fd);
        default:
            return t.mmap_read(fd, op.offset, op.length, size);
    }
}

bool uses_slot(Kind kind) {
    return kind == Kind::kPread || kind == Kind::kPwrite || kind == Kind::kWrite ||
           kind == Kind::kFtruncate || kind == Kind::kFsync || kind == Kind::kMmap;
}

}  // namespace

bool same_folded(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::string Engine::full(const std::string& path) const {
    if (path.empty()) return dir_;
    return dir_.empty() ? path : dir_ + "/" + path;
}

// Spells each component as it exists in the folder (looked up without
// regard to case), so that the case-insensitive volume and the reference
// name the same thing. A rename's destination that differs from its source
// only in case keeps its new spelling.
std::string Engine::resolve(const std::string& path, const std::string* source) const {
    std::string done;
    size_t start = 0;
    bool exists = true;
    while (start <= path.size()) {
        size_t slash = std::min(path.find('/', start), path.size());
        std::string name = path.substr(start, slash - start);
        bool last = slash == path.size();
        bool keep = last && source && same_folded(done.empty() ? name : done + "/" + name, *source);
        if (exists && !keep) {
            exists = false;
            for (const auto& have : lookup().list(full(done)).names)
                if (same_folded(have, name)) name = have, exists = true;
        }
        done = done.empty() ? name : done + "/" + name;
        start = slash + 1;
    }
    return done;
}

bool Engine::holds_open_file(const std::string& folder) const {
    for (const auto& [id, slot] : slots_)
        if (!slot.path.empty() && (under(slot.path, folder) || same_folded(slot.path, folder)))
            return true;
    return false;
}

std::optional<std::string> Engine::begin(const std::string& dir) {
    dir_ = dir;
    slots_.clear();
    Outcome a = volume_.mkdir(dir);
    if (!a.ok()) return "cannot make " + dir + " on the volume: " + describe(a);
    if (!reference_) return std::nullopt;
    Outcome b = reference_->mkdir(dir);
    if (!b.ok()) return "cannot make " + dir + " in the reference: " + describe(b);
    return std::nullopt;
}

std::optional<std::string> Engine::run_open(const Op& op, const std::string& path) {
    slots_.erase(op.slot);
    Outcome a = volume_.open(full(path), op.flags);
    Slot slot;
    slot.flags = op.flags;
    slot.path = path;
    if (a.ok()) slot.volume = OwnedFd(&volume_, static_cast<int>(a.value));
    if (!reference_) {
        if (a.ok()) slots_[op.slot] = std::move(slot);
        return std::nullopt;
    }
    Outcome b = reference_->open(full(path), op.flags);
    if (b.ok()) slot.reference = OwnedFd(reference_, static_cast<int>(b.value));
    if (a.ok() && b.ok()) slots_[op.slot] = std::move(slot);
    return count(op, a, &b);
}

std::optional<std::string> Engine::run_close(const Op& op) {
    auto it = slots_.find(op.slot);
    if (it == slots_.end()) return std::nullopt;
    Outcome a = it->second.volume.reset();
    Outcome b = it->second.reference.reset();
    slots_.erase(it);
    return count(op, a, reference_ ? &b : nullptr);
}

void Engine::after_rename(const std::string& from, const std::string& to) {
    if (same_folded(from, to)) return;
    for (auto& [id, slot] : slots_)
        if (same_folded(slot.path, to)) slot.path.clear();
    for (auto& [id, slot] : slots_)
        if (same_folded(slot.path, from)) slot.path = to;
}

void Engine::after_unlink(const std::string& path) {
    for (auto& [id, slot] : slots_)
        if (same_folded(slot.path, path)) slot.path.clear();
}

std::optional<std::string> Engine::step(const Op& op) {
    if (op.kind == Kind::kOpen) return run_open(op, resolve(op.path));
    if (op.kind == Kind::kClose) return run_close(op);
    if (uses_slot(op.kind)) {
        auto it = slots_.find(op.slot);
        if (it == slots_.end()) return std::nullopt;
        std::string data = op_data(op);
        // The volume cannot fstat a file unlinked while open once its folder
        // is gone (the kernel asks libfuse by path, and there is none): a
        // mapped read takes the length to map from the reference.
        struct stat st {};
        const int64_t size =
            reference_ && op.kind == Kind::kMmap && ::fstat(it->second.reference.get(), &st) == 0
                ? st.st_size
                : -1;
        Outcome a = apply_fd(volume_, op, it->second.volume.get(), data, size);
        if (!reference_) return count(op, a, nullptr);
        Outcome b = apply_fd(*reference_, op, it->second.reference.get(), data, size);
        return count(op, a, &b);
    }
    std::string path = resolve(op.path);
    std::string path2 = op.kind == Kind::kRename ? resolve(op.path2, &path) : "";
    // The volume refuses to move a folder that holds an open file.
    if (op.kind == Kind::kRename && lookup().stat(full(path)).bytes == "d" && holds_open_file(path))
        return std::nullopt;
    bool unlinks = op.kind == Kind::kUnlink || op.kind == Kind::kRename;
    if (avoid_.unlink_open && unlinks && holds_open_file(op.kind == Kind::kUnlink ? path : path2))
        return std::nullopt;
    Outcome a = apply_path(volume_, op, full(path), full(path2));
    Outcome b = reference_ ? apply_path(*reference_, op, full(path), full(path2)) : a;
    if (b.ok() && op.kind == Kind::kRename) after_rename(path, path2);
    if (b.ok() && op.kind == Kind::kUnlink) after_unlink(path);
    return count(op, a, reference_ ? &b : nullptr);
}

std::optional<std::string> Engine::count(const Op& op, const Outcome& a, const Outcome* b) {
    auto& [ran, refused] = tally_[format_op(op).substr(0, format_op(op).find(' '))];
    ++ran;
    refused += !(b ? *b : a).ok();
    return b ? compare(op.kind, a, *b) : std::nullopt;
}

std::string Engine::tally() const {
    std::string out;
    for (const auto& [name, counts] : tally_)
        out += (out.empty() ? "" : " ") + name + " " + std::to_string(counts.first) + "/" +
               std::to_string(counts.second);
    return out;
}

std::optional<std::string> Engine::finish() {
    std::optional<std::string> diff;
    for (auto& [id, slot] : slots_) {
        Outcome a = slot.volume.reset(), b = slot.reference.reset();
        if (reference_ && !diff && (diff = compare(Kind::kClose, a, b)))
            *diff = "closing slot " + std::to_string(id) + ": " + *diff;
    }
    slots_.clear();
    if (diff || !reference_) return diff;
    auto diffs = compare_trees(volume_, *reference_, dir_);
    if (diffs.empty()) return std::nullopt;
    std::string out = "the trees differ at the end:";
    for (const auto& d : diffs)
        out += "\n  " + d;
    return out;
}

std::vector<Entry> Engine::entries() const {
    std::vector<Entry> out;
    std::vector<std::string> todo{""};
    while (!todo.empty()) {
        std::string folder = todo.back();
        todo.pop_back();
        for (const auto& name : sorted_names(lookup().list(full(folder)), true)) {
            std::string path = folder.empty() ? name : folder + "/" + name;
            bool is_folder = lookup().stat(full(path)).bytes == "d";
            out.push_back({path, is_folder});
            if (is_folder) todo.push_back(path);
        }
    }
    return out;
}

std::optional<Failure> run_sequence(Target& volume, Target& reference, const std::string& dir,
                                    const std::vector<Op>& ops, Avoid avoid) {
    Engine engine(volume, &reference, avoid);
    if (auto diff = engine.begin(dir)) return Failure{0, *diff};
    for (size_t i = 0; i < ops.size(); ++i)
        if (auto diff = engine.step(ops[i])) return Failure{i, *diff};
    if (auto diff = engine.finish()) return Failure{ops.size(), *diff};
    return std::nullopt;
}

}  // namespace difftest
