#include "runs.h"

#include <algorithm>
#include <cctype>
#include <chrono>

#include "generator.h"

namespace difftest {

std::string RunDirs::next() {
    for (;;) {
        std::string dir = "run-" + std::to_string(n_++);
        // A side that cannot answer (a volume whose daemon died) ends the
        // search too: making the folder then fails with its error.
        if (!volume_.stat(dir).ok() && !reference_.stat(dir).ok()) return dir;
    }
}

Run run_generated(Target& volume, Target& reference, const std::string& dir, uint64_t seed,
                  size_t count, Avoid avoid) {
    Run run;
    Engine engine(volume, &reference, avoid);
    if (auto diff = engine.begin(dir)) {
        run.failure = Failure{0, *diff};
        return run;
    }
    Generator generator(seed, avoid);
    while (run.ops.size() < count) {
        run.ops.push_back(generator.next(engine));
        if (auto diff = engine.step(run.ops.back())) {
            run.failure = Failure{run.ops.size() - 1, *diff};
            return run;
        }
    }
    run.tally = engine.tally();
    if (auto diff = engine.finish()) run.failure = Failure{run.ops.size(), *diff};
    return run;
}

namespace {

// What kind of failure a run shows: the kind of operation that differed (or
// "end") and the difference without its numbers, paths and names.
std::string signature(const Run& run) {
    const Failure& f = *run.failure;
    std::string text = f.message;
    std::string kind = f.index < run.ops.size() ? format_op(run.ops[f.index]) : "end";
    if (f.index >= run.ops.size()) {
        size_t line = text.find("\n");
        text = line == std::string::npos ? text : text.substr(line + 1);
        text = text.substr(text.find(": ") == std::string::npos ? 0 : text.find(": ") + 2);
    }
    text = text.substr(0, text.find(':'));
    text.erase(std::remove_if(text.begin(), text.end(), ::isdigit), text.end());
    return kind.substr(0, kind.find(' ')) + "|" + text;
}

// Renames a path, or what lies under it, from `from` to `to`.
void rewrite(std::string& path, const std::string& from, const std::string& to) {
    bool inside = path.size() > from.size() && path[from.size()] == '/';
    if (same_folded(path.substr(0, from.size()), from) && (inside || path.size() == from.size()))
        path = to + path.substr(from.size());
}

// The sequence without ops [i, i+n). Later operations on what a dropped
// rename moved use the old name, so that a chain of renames can go at once.
std::vector<Op> without(const std::vector<Op>& ops, size_t i, size_t n) {
    std::vector<Op> out(ops.begin(), ops.begin() + i);
    size_t end = std::min(ops.size(), i + n);
    std::vector<Op> later(ops.begin() + end, ops.end());
    for (size_t k = end; k-- > i;) {
        if (ops[k].kind != Kind::kRename) continue;
        for (Op& op : later) {
            rewrite(op.path, ops[k].path2, ops[k].path);
            rewrite(op.path2, ops[k].path2, ops[k].path);
        }
    }
    out.insert(out.end(), later.begin(), later.end());
    return out;
}

struct Shrinking {
    Target& volume;
    Target& reference;
    RunDirs& dirs;
    Avoid avoid;
    std::string wanted;  // the signature of the original failure
    Shrunk best;
    bool broken = false;

    // Runs a candidate; keeps it, cut after the operation that differed, if
    // it fails the same way.
    bool attempt(std::vector<Op> candidate) {
        ++best.attempts;
        Run run{std::move(candidate), std::nullopt, ""};
        run.failure = run_sequence(volume, reference, dirs.next(), run.ops, avoid);
        // The folder could not be made: the volume no longer works.
        broken = run.failure && run.failure->message.rfind("cannot make", 0) == 0;
        if (!run.failure || signature(run) != wanted) return false;
        if (run.failure->index + 1 < run.ops.size()) run.ops.resize(run.failure->index + 1);
        best.run = std::move(run);
        return true;
    }
};

}  // namespace

Shrunk shrink(Target& volume, Target& reference, RunDirs& dirs, const Run& failed, double seconds,
              Avoid avoid) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    Shrinking s{volume, reference, dirs, avoid, signature(failed), {}, false};
    if (!s.attempt(failed.ops)) return s.best;  // it no longer fails
    // Halving chunks, then single operations again while that helps: a
    // failure that depends on timing may let go of an operation only later.
    size_t chunk = std::max<size_t>(1, s.best.run.ops.size() / 2);
    for (bool progress = true; progress && !s.broken && Clock::now() < deadline;) {
        size_t before = s.best.run.ops.size();
        for (size_t i = 0; i < s.best.run.ops.size() && !s.broken && Clock::now() < deadline;) {
            if (!s.attempt(without(s.best.run.ops, i, chunk))) i += chunk;
        }
        progress = chunk > 1 || s.best.run.ops.size() < before;
        chunk = std::max<size_t>(1, chunk / 2);
    }
    return s.best;
}

}  // namespace difftest
