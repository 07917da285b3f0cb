#include "generator.h"

#include <fcntl.h>

#include <algorithm>

namespace difftest {
namespace {

const char* const kFileNames[] = {"a.txt", "Bravo", "c d.bin", "naïve.txt", "日本", "f"};
const char* const kFolderNames[] = {"dir", "Sub", "x y", "ñu"};
constexpr int64_t kMiB = 1 << 20;
constexpr int kMaxDepth = 3;
constexpr size_t kMaxSlots = 10;

int depth(const std::string& path) {
    return path.empty() ? 0 : 1 + int(std::count(path.begin(), path.end(), '/'));
}

std::string join(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

// Operation kinds by how often they are drawn.
constexpr std::pair<Kind, int> kWeights[] = {
    {Kind::kOpen, 12},     {Kind::kClose, 6},    {Kind::kPwrite, 16}, {Kind::kWrite, 6},
    {Kind::kFtruncate, 4}, {Kind::kTruncate, 3}, {Kind::kPread, 10},  {Kind::kMmap, 4},
    {Kind::kFsync, 3},     {Kind::kStat, 6},     {Kind::kRename, 10}, {Kind::kMkdir, 6},
    {Kind::kRmdir, 4},     {Kind::kUnlink, 4},   {Kind::kList, 6},
};

}  // namespace

std::string Generator::flip_case(std::string name) {
    for (char& c : name) {
        if (c >= 'a' && c <= 'z' && chance(50))
            c = char(c - 'a' + 'A');
        else if (c >= 'A' && c <= 'Z' && chance(50))
            c = char(c - 'A' + 'a');
    }
    return name;
}

// A name from the pool, sometimes in other letter case: the engine spells
// it as it exists.
std::string Generator::name(bool folder) {
    std::string n = folder ? kFolderNames[below(4)] : kFileNames[below(6)];
    return chance(10) ? flip_case(n) : n;
}

std::string Generator::folder(const std::vector<Entry>& entries) {
    if (chance(30)) return "";
    std::string found = existing(entries, 1);
    return depth(found) < kMaxDepth ? found : "";
}

std::string Generator::fresh_path(const std::vector<Entry>& entries, bool folder_name) {
    return join(folder(entries), name(folder_name));
}

// An existing entry: a folder (want_folder 1), a file (0) or either (-1);
// else a fresh path.
std::string Generator::existing(const std::vector<Entry>& entries, int want_folder) {
    std::vector<const Entry*> fit;
    for (const Entry& e : entries)
        if (want_folder < 0 || e.folder == (want_folder == 1)) fit.push_back(&e);
    if (fit.empty()) return want_folder == 1 ? "" : name(false);
    std::string path = fit[below(fit.size())]->path;
    return chance(10) ? flip_case(path) : path;
}

// An offset or size near a multiple of 4 KiB or 128 KiB, sometimes anywhere.
int64_t Generator::near_boundary(int64_t limit) {
    if (chance(20)) return int64_t(below(size_t(limit)));
    int64_t step = chance(50) ? 4096 : 128 * 1024;
    int64_t value = step * int64_t(below(size_t(std::max<int64_t>(1, limit / step / 2))));
    value += int64_t(below(7)) - 3;
    return std::clamp<int64_t>(value, 0, limit);
}

int64_t Generator::length() {
    switch (below(4)) {
        case 0:
            return 1 + int64_t(below(100));
        case 1:
            return 1 + int64_t(below(8192));
        case 2:
            return 128 * 1024 + int64_t(below(7)) - 3;
        default:
            return 1 + int64_t(below(kMiB));
    }
}

Op Generator::open(const std::vector<Entry>& entries) {
    Op op;
    op.kind = Kind::kOpen;
    op.slot = next_slot_++;
    bool fresh = chance(30);
    op.path = fresh ? fresh_path(entries, false) : existing(entries, chance(90) ? 0 : -1);
    static const int kAccess[] = {O_RDONLY, O_WRONLY, O_RDWR, O_RDWR};
    op.flags = kAccess[below(4)];
    if (chance(20)) op.flags |= O_APPEND;
    if (chance(fresh ? 85 : 30)) op.flags |= O_CREAT | (chance(20) ? O_EXCL : 0);
    if (chance(10)) op.flags |= O_TRUNC;
    return op;
}

Op Generator::on_slot(Kind kind, const Engine& engine) {
    Op op;
    op.kind = kind;
    auto it = engine.slots().begin();
    std::advance(it, below(engine.slots().size()));
    op.slot = it->first;
    if (kind == Kind::kWrite && !(it->second.flags & O_APPEND) && chance(70))
        op.kind = Kind::kPwrite;
    op.data_seed = rng_();
    switch (op.kind) {
        case Kind::kPwrite:
            op.length = length();
            op.offset = std::min(near_boundary(3 * kMiB), 8 * kMiB - op.length);
            break;
        case Kind::kWrite:
            op.length = std::min<int64_t>(length(), 256 * 1024);
            break;
        case Kind::kFtruncate:
            op.offset = near_boundary(3 * kMiB);
            break;
        case Kind::kPread:
        case Kind::kMmap:
            op.offset = near_boundary(3 * kMiB);
            op.length = length();
            break;
        default:
            break;
    }
    return op;
}

Op Generator::rename(const std::vector<Entry>& entries, const Engine& engine) {
    Op op;
    op.kind = Kind::kRename;
    op.path = existing(entries, -1);
    auto source = std::find_if(entries.begin(), entries.end(),
                               [&](const Entry& e) { return e.path == op.path; });
    bool is_folder = source != entries.end() && source->folder;
    if (is_folder && engine.holds_open_file(op.path)) {
        op.kind = Kind::kStat;
        return op;
    }
    size_t slash = op.path.rfind('/');
    std::string base = slash == std::string::npos ? op.path : op.path.substr(slash + 1);
    switch (below(10)) {
        case 0:
        case 1:
            op.path2 = op.path.substr(0, op.path.size() - base.size()) + flip_case(base);
            break;
        case 2:
        case 3:
        case 4:
            op.path2 = fresh_path(entries, is_folder);
            break;
        case 5:
        case 6:
            op.path2 = existing(entries, 0);
            break;
        case 7:
        case 8:
            op.path2 = existing(entries, 1);
            break;
        default:
            op.path2 = join(folder(entries), base);
            break;
    }
    if (op.path2.empty()) op.path2 = name(is_folder);
    return op;
}

Op Generator::next(const Engine& engine) {
    std::vector<Entry> entries = engine.entries();
    int total = 0;
    for (auto [kind, weight] : kWeights)
        total += weight;
    int pick = int(below(size_t(total)));
    Kind kind = Kind::kOpen;
    for (auto [k, weight] : kWeights)
        if ((pick -= weight) < 0) {
            kind = k;
            break;
        }
    if (kind == Kind::kMmap && avoid_.mmap) kind = Kind::kPread;
    bool slot_kind = kind == Kind::kClose || kind == Kind::kPwrite || kind == Kind::kWrite ||
                     kind == Kind::kFtruncate || kind == Kind::kPread || kind == Kind::kMmap ||
                     kind == Kind::kFsync;
    if (engine.slots().size() >= kMaxSlots && kind == Kind::kOpen) kind = Kind::kClose;
    if (slot_kind && engine.slots().empty()) kind = Kind::kOpen;
    if (kind == Kind::kOpen) return open(entries);
    if (kind == Kind::kRename) return rename(entries, engine);
    if (kind == Kind::kClose || slot_kind) return on_slot(kind, engine);
    Op op;
    op.kind = kind;
    switch (kind) {
        case Kind::kTruncate:
            op.path = existing(entries, 0);
            op.offset = near_boundary(3 * kMiB);
            break;
        case Kind::kStat:
            op.path = chance(80) ? existing(entries, -1) : fresh_path(entries, false);
            break;
        case Kind::kMkdir:
            op.path = fresh_path(entries, true);
            break;
        case Kind::kRmdir:
            op.path = chance(85) ? existing(entries, 1) : existing(entries, 0);
            if (op.path.empty()) op.path = name(true);
            break;
        case Kind::kUnlink:
            op.path = chance(85) ? existing(entries, 0) : existing(entries, 1);
            break;
        default:
            op.path = chance(30) ? "" : existing(entries, 1);
            break;
    }
    return op;
}

}  // namespace difftest
