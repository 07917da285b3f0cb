#include "ops.h"

#include <fcntl.h>

#include <istream>
#include <ostream>
#include <random>
#include <sstream>

namespace difftest {
namespace {

// The fields each kind has after its name, in order:
// s slot, f flags, o offset, l length, d data seed, p path, q second path.
struct KindInfo {
    Kind kind;
    const char* name;
    const char* fields;
};

constexpr KindInfo kKinds[] = {
    {Kind::kOpen, "open", "sfp"},        {Kind::kClose, "close", "s"},
    {Kind::kPread, "pread", "sol"},      {Kind::kPwrite, "pwrite", "sold"},
    {Kind::kWrite, "write", "sld"},      {Kind::kFtruncate, "ftruncate", "so"},
    {Kind::kTruncate, "truncate", "po"}, {Kind::kFsync, "fsync", "s"},
    {Kind::kMmap, "mmap", "sol"},        {Kind::kStat, "stat", "p"},
    {Kind::kRename, "rename", "pq"},     {Kind::kMkdir, "mkdir", "p"},
    {Kind::kRmdir, "rmdir", "p"},        {Kind::kUnlink, "unlink", "p"},
    {Kind::kList, "list", "p"},
};

constexpr std::pair<int, char> kFlagLetters[] = {
    {O_APPEND, 'a'}, {O_CREAT, 'c'}, {O_EXCL, 'x'}, {O_TRUNC, 't'}};

std::string escape(const std::string& name) {
    if (name.empty()) return ".";
    std::string out;
    for (char c : name) {
        if (c == ' ')
            out += "%20";
        else if (c == '%')
            out += "%25";
        else
            out += c;
    }
    return out;
}

std::string unescape(const std::string& text) {
    if (text == ".") return "";
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 3, "%20") == 0) {
            out += ' ';
            i += 2;
        } else if (text.compare(i, 3, "%25") == 0) {
            out += '%';
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string format_flags(int flags) {
    int access = flags & O_ACCMODE;
    std::string out = access == O_RDONLY ? "r" : access == O_WRONLY ? "w" : "rw";
    for (auto [bit, letter] : kFlagLetters)
        if (flags & bit) out += letter;
    return out;
}

std::optional<int> parse_flags(const std::string& text) {
    size_t n = text.rfind("rw", 0) == 0 ? 2 : 1;
    int flags = n == 2 ? O_RDWR : text[0] == 'r' ? O_RDONLY : text[0] == 'w' ? O_WRONLY : -1;
    if (flags < 0) return std::nullopt;
    for (char c : text.substr(n)) {
        int bit = 0;
        for (auto [b, letter] : kFlagLetters)
            if (letter == c) bit = b;
        if (!bit) return std::nullopt;
        flags |= bit;
    }
    return flags;
}

}  // namespace

std::string format_op(const Op& op) {
    std::ostringstream out;
    for (const KindInfo& info : kKinds) {
        if (info.kind != op.kind) continue;
        out << info.name;
        for (const char* f = info.fields; *f; ++f) {
            out << ' ';
            switch (*f) {
                case 's':
                    out << op.slot;
                    break;
                case 'f':
                    out << format_flags(op.flags);
                    break;
                case 'o':
                    out << op.offset;
                    break;
                case 'l':
                    out << op.length;
                    break;
                case 'd':
                    out << op.data_seed;
                    break;
                case 'p':
                    out << escape(op.path);
                    break;
                case 'q':
                    out << escape(op.path2);
                    break;
            }
        }
    }
    return out.str();
}

std::optional<Op> parse_op(const std::string& line) {
    std::istringstream in(line);
    std::string name;
    in >> name;
    for (const KindInfo& info : kKinds) {
        if (name != info.name) continue;
        Op op;
        op.kind = info.kind;
        for (const char* f = info.fields; *f; ++f) {
            std::string field;
            if (!(in >> field)) return std::nullopt;
            try {
                switch (*f) {
                    case 's':
                        op.slot = std::stoi(field);
                        break;
                    case 'o':
                        op.offset = std::stoll(field);
                        break;
                    case 'l':
                        op.length = std::stoll(field);
                        break;
                    case 'd':
                        op.data_seed = std::stoull(field);
                        break;
                    case 'p':
                        op.path = unescape(field);
                        break;
                    case 'q':
                        op.path2 = unescape(field);
                        break;
                    case 'f':
                        auto flags = parse_flags(field);
                        if (!flags) return std::nullopt;
                        op.flags = *flags;
                        break;
                }
            } catch (const std::exception&) {
                return std::nullopt;
            }
        }
        std::string extra;
        if (in >> extra) return std::nullopt;
        return op;
    }
    return std::nullopt;
}

std::optional<std::vector<Op>> read_sequence(std::istream& in, std::string* error) {
    std::vector<Op> ops;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        auto op = parse_op(line);
        if (!op) {
            *error = line;
            return std::nullopt;
        }
        ops.push_back(*op);
    }
    return ops;
}

void write_sequence(std::ostream& out, const std::vector<Op>& ops) {
    for (const Op& op : ops)
        out << format_op(op) << '\n';
}

std::string op_data(const Op& op) {
    std::mt19937_64 rng(op.data_seed);
    std::string data(op.length, '\0');
    for (size_t i = 0; i < data.size(); i += 8) {
        uint64_t word = rng();
        for (size_t j = 0; j < 8 && i + j < data.size(); ++j)
            data[i + j] = char(word >> (8 * j));
    }
    return data;
}

}  // namespace difftest
