#include "runs.h"

#include <chrono>

#include "generator.h"

namespace difftest {

std::string RunDirs::next() {
    for (;;) {
        std::string dir = "run-" + std::to_string(n_++);
        if (volume_.stat(dir).err == ENOENT && reference_.stat(dir).err == ENOENT) return dir;
    }
}

Run run_generated(Target& volume, Target& reference, const std::string& dir, uint64_t seed,
                  size_t count, Avoid avoid) {
    Run run;
    Engine engine(volume, &reference);
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

// Runs a candidate; keeps it, cut after the operation that differed, if it
// fails.
bool try_candidate(Target& volume, Target& reference, RunDirs& dirs, std::vector<Op> candidate,
                   Shrunk* best) {
    ++best->attempts;
    auto failure = run_sequence(volume, reference, dirs.next(), candidate);
    if (!failure) return false;
    if (failure->index + 1 < candidate.size()) candidate.resize(failure->index + 1);
    best->run = Run{std::move(candidate), failure, ""};
    return true;
}

}  // namespace

Shrunk shrink(Target& volume, Target& reference, RunDirs& dirs, const std::vector<Op>& ops,
              double seconds) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    Shrunk best;
    if (!try_candidate(volume, reference, dirs, ops, &best)) return best;  // no longer fails
    // Halving chunks, then single operations again while that helps: a
    // failure that depends on timing may let go of an operation only later.
    size_t chunk = std::max<size_t>(1, best.run.ops.size() / 2);
    for (bool progress = true; progress && Clock::now() < deadline;) {
        size_t before = best.run.ops.size();
        for (size_t i = 0; i < best.run.ops.size() && Clock::now() < deadline;) {
            std::vector<Op> candidate = best.run.ops;
            auto end = candidate.begin() + std::min(candidate.size(), i + chunk);
            candidate.erase(candidate.begin() + i, end);
            if (!try_candidate(volume, reference, dirs, std::move(candidate), &best)) i += chunk;
        }
        progress = chunk > 1 || best.run.ops.size() < before;
        chunk = std::max<size_t>(1, chunk / 2);
    }
    return best;
}

}  // namespace difftest
