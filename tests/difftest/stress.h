// Several processes at once on one volume: each on its own folder, compared
// with its own reference folder, and all on one shared folder, whose answers
// are not compared since their interleaving is not deterministic.
#pragma once

#include <cstdint>
#include <string>

#include "generator.h"

namespace difftest {

struct StressOptions {
    std::string volume;     // each worker K works in volume/wK ...
    std::string reference;  // ... compared with reference/wK
    std::string shared;     // a folder of the volume that every worker uses
    int workers = 4;
    double seconds = 20;
    uint64_t seed = 1;
    Avoid avoid;
    double op_limit = 60;  // an operation that takes longer is reported as hung
};

// Runs the workers and watches them; 0 when none crashed, hung or differed.
int run_stress(const StressOptions& options);

}  // namespace difftest
