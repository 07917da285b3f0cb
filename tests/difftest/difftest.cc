// difftest: drives a mounted volume with random file operations and compares
// every answer with a plain folder. Exit status: 0 equal, 1 differences
// (with a report), 2 wrong usage.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>

#include "runs.h"
#include "stress.h"
#include "tree_compare.h"

namespace {

using namespace difftest;

const char kUsage[] =
    "usage: difftest --volume DIR --reference DIR [--seed N] [--ops N] [--shrink-seconds S]\n"
    "                [--save FILE] [--avoid mmap,unlink-open]\n"
    "       difftest --volume DIR --reference DIR --replay FILE [--save FILE]\n"
    "       difftest --compare A B\n"
    "       difftest --volume DIR --reference DIR --stress WORKERS --seconds S --shared DIR"
    " [--seed N]\n";

struct Args {
    std::string volume, reference, replay, compare_a, compare_b, shared, save;
    uint64_t seed = 1;
    size_t ops = 1000;
    int stress = 0;
    double seconds = 20, shrink_seconds = 300;
    Avoid avoid;
};

// Reads a comma-separated list of what to leave out; throws on a word it
// does not know.
void parse_avoid(const std::string& list, Avoid* avoid) {
    std::stringstream in(list);
    for (std::string item; std::getline(in, item, ',');) {
        bool* flag = item == "mmap"          ? &avoid->mmap
                     : item == "unlink-open" ? &avoid->unlink_open
                                             : nullptr;
        if (!flag) throw std::invalid_argument(item);
        *flag = true;
    }
}

bool parse(int argc, char** argv, Args* a) {
    using Set = std::function<void(const char*)>;
    // Long options in the order of their index; each sets one field.
    const std::vector<std::pair<const char*, Set>> setters = {
        {"volume", [&](const char* v) { a->volume = v; }},
        {"reference", [&](const char* v) { a->reference = v; }},
        {"seed", [&](const char* v) { a->seed = std::stoull(v); }},
        {"ops", [&](const char* v) { a->ops = std::stoul(v); }},
        {"replay", [&](const char* v) { a->replay = v; }},
        {"stress", [&](const char* v) { a->stress = std::stoi(v); }},
        {"seconds", [&](const char* v) { a->seconds = std::stod(v); }},
        {"shared", [&](const char* v) { a->shared = v; }},
        {"save", [&](const char* v) { a->save = v; }},
        {"shrink-seconds", [&](const char* v) { a->shrink_seconds = std::stod(v); }},
        {"avoid", [&](const char* v) { parse_avoid(v, &a->avoid); }},
        {"compare",
         [&](const char* v) {
             a->compare_a = v;
             a->compare_b = optind < argc ? argv[optind++] : throw std::invalid_argument(v);
         }},
    };
    std::vector<option> options;
    for (const auto& [name, set] : setters)
        options.push_back({name, required_argument, nullptr, int(options.size())});
    options.push_back({nullptr, 0, nullptr, 0});
    try {
        for (int c; (c = getopt_long(argc, argv, "", options.data(), nullptr)) != -1;) {
            if (c < 0 || size_t(c) >= setters.size()) return false;
            setters[c].second(optarg);
        }
    } catch (const std::exception&) {
        return false;
    }
    if (optind != argc) return false;
    if (!a->compare_a.empty()) return true;
    if (a->stress > 0 && a->shared.empty()) return false;
    return !a->volume.empty() && !a->reference.empty();
}

int compare_mode(const Args& a) {
    auto first = make_real_target(a.compare_a), second = make_real_target(a.compare_b);
    auto diffs = compare_trees(*first, *second, "", 50);
    for (const auto& d : diffs)
        std::printf("%s\n", d.c_str());
    if (!diffs.empty()) std::printf("%s and %s differ\n", a.compare_a.c_str(), a.compare_b.c_str());
    return diffs.empty() ? 0 : 1;
}

// Prints a failure, then the shortest failing sequence found.
int report(const Args& a, Target& volume, Target& reference, RunDirs& dirs, const Run& run,
           const std::string& what) {
    const Failure& f = *run.failure;
    if (f.index < run.ops.size())
        std::printf("%s: FAILED at operation %zu of %zu: %s\n", what.c_str(), f.index + 1,
                    run.ops.size(), format_op(run.ops[f.index]).c_str());
    else
        std::printf("%s: FAILED after all %zu operations\n", what.c_str(), run.ops.size());
    std::printf("  %s\n", f.message.c_str());
    std::printf("shrinking %zu operations...\n", run.ops.size());
    std::fflush(stdout);
    Shrunk shrunk = shrink(volume, reference, dirs, run, a.shrink_seconds, a.avoid);
    if (!shrunk.run.failure) {
        std::printf("the failure did not come back when replayed; the sequence that failed:\n");
        shrunk.run = run;
    } else {
        std::printf("shrunk to %zu operations in %d attempts; it fails with:\n  %s\n",
                    shrunk.run.ops.size(), shrunk.attempts, shrunk.run.failure->message.c_str());
    }
    std::printf("--- sequence (difftest --replay FILE) ---\n# %s\n", what.c_str());
    write_sequence(std::cout, shrunk.run.ops);
    std::cout << "---" << std::endl;
    if (!a.save.empty()) {
        std::ofstream out(a.save);
        out << "# " << what << "\n# " << shrunk.run.failure->message << "\n";
        write_sequence(out, shrunk.run.ops);
    }
    return 1;
}

int run_mode(const Args& a) {
    auto volume = make_real_target(a.volume), reference = make_real_target(a.reference);
    RunDirs dirs(*volume, *reference);
    Run run;
    std::string what;
    if (!a.replay.empty()) {
        std::ifstream in(a.replay);
        std::string bad;
        auto ops = in ? read_sequence(in, &bad) : std::nullopt;
        if (!ops) {
            std::fprintf(stderr, "difftest: cannot read %s %s\n", a.replay.c_str(), bad.c_str());
            return 2;
        }
        what = "replay of " + a.replay;
        run.ops = *ops;
        run.failure = run_sequence(*volume, *reference, dirs.next(), run.ops, a.avoid);
    } else {
        what = "seed " + std::to_string(a.seed);
        run = run_generated(*volume, *reference, dirs.next(), a.seed, a.ops, a.avoid);
    }
    if (run.failure) return report(a, *volume, *reference, dirs, run, what);
    std::printf("%s: %zu operations, no difference\n", what.c_str(), run.ops.size());
    if (!run.tally.empty()) std::printf("ran/refused: %s\n", run.tally.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Args a;
    if (!parse(argc, argv, &a)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!a.compare_a.empty()) return compare_mode(a);
    if (a.stress > 0) {
        StressOptions o{a.volume, a.reference, a.shared, a.stress, a.seconds, a.seed, a.avoid};
        return run_stress(o);
    }
    return run_mode(a);
}
