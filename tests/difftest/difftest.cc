// difftest: drives a mounted volume with random file operations and compares
// every answer with a plain folder. Exit status: 0 equal, 1 differences
// (with a report), 2 wrong usage.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
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

bool parse_avoid(const std::string& list, Avoid* avoid) {
    std::stringstream in(list);
    for (std::string item; std::getline(in, item, ',');) {
        if (item == "mmap")
            avoid->mmap = true;
        else if (item == "unlink-open")
            avoid->unlink_open = true;
        else
            return false;
    }
    return true;
}

bool parse(int argc, char** argv, Args* a) {
    static const option kOptions[] = {{"volume", required_argument, nullptr, 'v'},
                                      {"reference", required_argument, nullptr, 'r'},
                                      {"seed", required_argument, nullptr, 's'},
                                      {"ops", required_argument, nullptr, 'n'},
                                      {"replay", required_argument, nullptr, 'p'},
                                      {"compare", required_argument, nullptr, 'c'},
                                      {"stress", required_argument, nullptr, 'w'},
                                      {"seconds", required_argument, nullptr, 't'},
                                      {"shared", required_argument, nullptr, 'h'},
                                      {"save", required_argument, nullptr, 'o'},
                                      {"shrink-seconds", required_argument, nullptr, 'k'},
                                      {"avoid", required_argument, nullptr, 'a'},
                                      {nullptr, 0, nullptr, 0}};
    int c;
    try {
        while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
            switch (c) {
                case 'v':
                    a->volume = optarg;
                    break;
                case 'r':
                    a->reference = optarg;
                    break;
                case 's':
                    a->seed = std::stoull(optarg);
                    break;
                case 'n':
                    a->ops = std::stoul(optarg);
                    break;
                case 'p':
                    a->replay = optarg;
                    break;
                case 'w':
                    a->stress = std::stoi(optarg);
                    break;
                case 't':
                    a->seconds = std::stod(optarg);
                    break;
                case 'h':
                    a->shared = optarg;
                    break;
                case 'o':
                    a->save = optarg;
                    break;
                case 'k':
                    a->shrink_seconds = std::stod(optarg);
                    break;
                case 'a':
                    if (!parse_avoid(optarg, &a->avoid)) return false;
                    break;
                case 'c':
                    if (optind >= argc) return false;
                    a->compare_a = optarg;
                    a->compare_b = argv[optind++];
                    break;
                default:
                    return false;
            }
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
    std::printf("%s: FAILED at operation %zu of %zu: %s\n  %s\n", what.c_str(), f.index + 1,
                run.ops.size(),
                f.index < run.ops.size() ? format_op(run.ops[f.index]).c_str() : "(end)",
                f.message.c_str());
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
