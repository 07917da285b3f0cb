// One operation of a sequence, and its replayable text form: one operation a
// line, fields split by spaces, with space and '%' in names written as %20
// and %25.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace difftest {

enum class Kind {
    kOpen,
    kClose,
    kPread,
    kPwrite,
    kWrite,
    kFtruncate,
    kTruncate,
    kFsync,
    kMmap,
    kStat,
    kRename,
    kMkdir,
    kRmdir,
    kUnlink,
    kList,
};

// Descriptors are named by slot numbers, given by the open that made them;
// data written is generated from a per-operation seed.
struct Op {
    Kind kind = Kind::kStat;
    int slot = 0;
    int flags = 0;       // open(2) flags
    int64_t offset = 0;  // also the size of (f)truncate
    int64_t length = 0;
    uint64_t data_seed = 0;
    std::string path;
    std::string path2;  // rename's destination
};

std::string format_op(Op op);
std::optional<Op> parse_op(const std::string& line);

// Reads a sequence; lines that are empty or start with '#' are skipped.
// Fails (nullopt, with the bad line in *error) on a malformed line.
std::optional<std::vector<Op>> read_sequence(std::istream& in, std::string* error);
void write_sequence(std::ostream& out, const std::vector<Op>& ops);

// The bytes an operation writes.
std::string op_data(const Op& op);

}  // namespace difftest
