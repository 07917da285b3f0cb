#include "stress.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "engine.h"
#include "generator.h"

namespace difftest {
namespace {

// What a worker is doing, in memory shared with the watchdog.
struct Beat {
    std::atomic<int64_t> since_ms{0};  // 0 between operations
    std::atomic<uint64_t> done{0};
    char op[240] = {};
};

int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Runs one operation with the watchdog told about it; false when it differed.
bool timed_step(Engine& engine, const Op& op, Beat& beat, int worker, const char* where) {
    std::snprintf(beat.op, sizeof beat.op, "%s: %s", where, format_op(op).c_str());
    beat.since_ms = now_ms();
    auto diff = engine.step(op);
    beat.since_ms = 0;
    ++beat.done;
    if (!diff) return true;
    std::printf("worker %d, %s, operation %s differs: %s\n", worker, where, format_op(op).c_str(),
                diff->c_str());
    return false;
}

int worker_main(const StressOptions& o, int k, Beat& beat) {
    auto volume = make_real_target(o.volume), reference = make_real_target(o.reference);
    auto shared = make_real_target(o.shared);
    Engine own(*volume, reference.get(), o.avoid), common(*shared, nullptr, o.avoid);
    std::string dir = "w" + std::to_string(k);
    if (auto diff = own.begin(dir)) {
        std::printf("worker %d: %s\n", k, diff->c_str());
        return 1;
    }
    Generator own_ops(o.seed * 1000 + k, o.avoid),
        common_ops(o.seed * 1000 + 500 + k, Avoid{true, o.avoid.unlink_open});
    auto deadline = now_ms() + int64_t(o.seconds * 1000);
    // After a difference the worker stops comparing but keeps loading the
    // shared folder until the time is up.
    bool differed = false;
    while (now_ms() < deadline) {
        differed = differed || !timed_step(own, own_ops.next(own), beat, k, dir.c_str());
        timed_step(common, common_ops.next(common), beat, k, "shared");
    }
    std::snprintf(beat.op, sizeof beat.op, "closing and comparing %s", dir.c_str());
    beat.since_ms = now_ms();
    common.finish();
    if (differed) return 1;
    if (auto diff = own.finish()) {
        std::printf("worker %d (seed %llu): %s\n", k, (unsigned long long)(o.seed * 1000 + k),
                    diff->c_str());
        return 1;
    }
    return 0;
}

// Waits for the workers; reports any that crashed, failed or hung.
int watch(const StressOptions& o, std::vector<pid_t>& pids, Beat* beats) {
    int status_all = 0;
    size_t running = pids.size();
    while (running > 0) {
        ::usleep(200 * 1000);
        for (size_t k = 0; k < pids.size(); ++k) {
            int status = 0;
            if (pids[k] <= 0 || ::waitpid(pids[k], &status, WNOHANG) != pids[k]) continue;
            pids[k] = 0;
            --running;
            if (WIFSIGNALED(status))
                std::printf("worker %zu died of signal %d in %s\n", k, WTERMSIG(status),
                            beats[k].op);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) status_all = 1;
        }
        for (size_t k = 0; k < pids.size(); ++k) {
            int64_t since = beats[k].since_ms;
            if (pids[k] <= 0 || since == 0 || now_ms() - since < o.op_limit * 1000) continue;
            std::printf("worker %zu hung: %s has not ended after %.0f s\n", k, beats[k].op,
                        (now_ms() - since) / 1000.0);
            for (pid_t pid : pids)
                if (pid > 0) ::kill(pid, SIGKILL);
            return 1;
        }
    }
    return status_all;
}

}  // namespace

int run_stress(const StressOptions& o) {
    size_t bytes = sizeof(Beat) * o.workers;
    void* memory =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 1;
    Beat* beats = new (memory) Beat[o.workers];
    std::fflush(stdout);
    std::vector<pid_t> pids;
    for (int k = 0; k < o.workers; ++k) {
        pid_t pid = ::fork();
        if (pid == 0) {
            int code = worker_main(o, k, beats[k]);
            std::fflush(stdout);
            ::_exit(code);
        }
        pids.push_back(pid);
    }
    int status = watch(o, pids, beats);
    uint64_t total = 0;
    for (int k = 0; k < o.workers; ++k)
        total += beats[k].done;
    std::printf("stress: %d workers, %.0f s, %llu operations, %s\n", o.workers, o.seconds,
                (unsigned long long)total, status == 0 ? "no failure" : "FAILED");
    ::munmap(memory, bytes);
    return status;
}

}  // namespace difftest
