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

// Writes one field of an operation as text, or reads it back from text.
bool convert(Op& op, char field, std::string& text, bool parse) {
    auto number = [&](auto& value) {
        if (!parse) return text = std::to_string(value), true;
        std::istringstream in(text);
        return in >> value && in.peek() == EOF;
    };
    auto name = [&](std::string& value) {
        parse ? value = unescape(text) : text = escape(value);
        return true;
    };
    switch (field) {
        case 's':
            return number(op.slot);
        case 'o':
            return number(op.offset);
        case 'l':
            return number(op.length);
        case 'd':
            return number(op.data_seed);
        case 'p':
            return name(op.path);
        case 'q':
            return name(op.path2);
    }
    if (!parse) return text = format_flags(op.flags), true;
    auto flags = parse_flags(text);
    op.flags = flags.value_or(0);
    return flags.has_value();
}

}  // namespace

std::string format_op(Op op) {
    for (const KindInfo& info : kKinds) {
        if (info.kind != op.kind) continue;
        std::string out = info.name, text;
        for (const char* f = info.fields; *f; ++f) {
            convert(op, *f, text, false);
            out += ' ' + text;
        }
        return out;
    }
    return "?";
}

std::optional<Op> parse_op(const std::string& line) {
    std::istringstream in(line);
    std::string name, text;
    in >> name;
    for (const KindInfo& info : kKinds) {
        if (name != info.name) continue;
        Op op;
        op.kind = info.kind;
        for (const char* f = info.fields; *f; ++f)
            if (!(in >> text) || !convert(op, *f, text, true)) return std::nullopt;
        if (in >> text) return std::nullopt;
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
