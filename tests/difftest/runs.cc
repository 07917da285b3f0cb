#include "runs.h"

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

}  // namespace difftest
