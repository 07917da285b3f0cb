// Whole runs: a generated sequence, and the shrinking of a failing one.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "engine.h"
#include "generator.h"
#include "ops.h"

namespace difftest {

// Hands out folder names run-N that exist on neither side, so that each
// attempt starts from an empty folder and nothing needs deleting.
class RunDirs {
  public:
    RunDirs(Target& volume, Target& reference) : volume_(volume), reference_(reference) {}
    std::string next();

  private:
    Target& volume_;
    Target& reference_;
    int n_ = 0;
};

struct Run {
    std::vector<Op> ops;  // up to and including the one that differed
    std::optional<Failure> failure;
    std::string tally;  // see Engine::tally
};

// Draws `count` operations from the seed and runs them in `dir`.
Run run_generated(Target& volume, Target& reference, const std::string& dir, uint64_t seed,
                  size_t count, Avoid avoid = {});

struct Shrunk {
    Run run;
    int attempts = 0;
};

// Looks for a shorter sequence that still fails the same way (the same kind
// of operation, the same kind of difference): drops chunks of halving size,
// down to single operations, while the failure stays; gives up improving
// after `seconds`.
Shrunk shrink(Target& volume, Target& reference, RunDirs& dirs, const Run& failed, double seconds,
              Avoid avoid = {});

}  // namespace difftest
