// Runs operations on a volume and a reference folder side by side and
// compares every answer.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ops.h"
#include "target.h"

namespace difftest {

// A descriptor pair opened by one open operation.
struct Slot {
    OwnedFd volume;
    OwnedFd reference;
    int flags = 0;
    std::string path;  // where the file is now; empty once unlinked
};

// What a run leaves out.
struct Avoid {
    // Mapped reads: in a folder that other processes truncate, a mapping
    // could fault.
    bool mmap = false;
    // Unlinking, or renaming onto, a file that is open: to look past a
    // known fault there.
    bool unlink_open = false;
};

struct Entry {
    std::string path;
    bool folder = false;
};

struct Failure {
    size_t index = 0;  // the operation that differed; the sequence's size for the final check
    std::string message;
};

class Engine {
  public:
    // Without a reference, operations run on the volume alone and nothing is
    // compared (the shared folder of the stress mode).
    Engine(Target& volume, Target* reference, Avoid avoid = {})
        : volume_(volume), reference_(reference), avoid_(avoid) {}

    // Makes `dir` on both sides; operations then work under it.
    std::optional<std::string> begin(const std::string& dir);
    // Runs one operation; says how the sides differ, if they do.
    std::optional<std::string> step(const Op& op);
    // Closes every descriptor and compares the trees under the folder.
    std::optional<std::string> finish();

    // What exists under the folder, as the reference (or the volume) sees it.
    std::vector<Entry> entries() const;
    const std::map<int, Slot>& slots() const { return slots_; }
    // How many operations of each kind ran, and how many of them failed on
    // the reference side: "open 120/15 pwrite ...".
    std::string tally() const;
    // Whether an open file lies in the folder (or is the folder).
    bool holds_open_file(const std::string& folder) const;

  private:
    Target& lookup() const { return reference_ ? *reference_ : volume_; }
    std::string full(const std::string& path) const;
    std::string resolve(const std::string& path, const std::string* source = nullptr) const;
    std::optional<std::string> run_open(const Op& op, const std::string& path);
    std::optional<std::string> run_close(const Op& op);
    std::optional<std::string> count(const Op& op, const Outcome& a, const Outcome* b);
    void after_rename(const std::string& from, const std::string& to);
    void after_unlink(const std::string& path);

    Target& volume_;
    Target* reference_;
    Avoid avoid_;
    std::string dir_;
    std::map<int, Slot> slots_;
    std::map<std::string, std::pair<int, int>> tally_;
};

// Whether two names are equal but for ASCII letter case, as the volume
// compares names.
bool same_folded(const std::string& a, const std::string& b);

// Runs a sequence in a fresh folder `dir`; the first difference, if any.
std::optional<Failure> run_sequence(Target& volume, Target& reference, const std::string& dir,
                                    const std::vector<Op>& ops, Avoid avoid = {});

}  // namespace difftest
