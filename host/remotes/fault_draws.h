// The random draws of a fault remote. Each operation has a stream of its
// own, derived from the seed and the number of draws made for it, so the
// n-th call of an operation gets the same draw in every run with that seed,
// whatever other operations ran in between. Thread safe, without a lock.
#ifndef SKARVO_REMOTES_FAULT_DRAWS_H_
#define SKARVO_REMOTES_FAULT_DRAWS_H_

#include <array>
#include <atomic>
#include <cstdint>

#include "remotes/fault_list.h"

class FaultDraws {
  public:
    explicit FaultDraws(uint64_t seed) : seed_(seed) {}

    // The next draw of `op`'s stream, uniform over 64 bits.
    uint64_t Next(FaultOp op);
    // Whether this call of `op` is one of `fraction` of calls: never for 0,
    // always for 1; takes a draw only in between.
    bool Hit(FaultOp op, double fraction);

  private:
    const uint64_t seed_;
    std::array<std::atomic<uint64_t>, kFaultOpCount> drawn_{};
};

#endif  // SKARVO_REMOTES_FAULT_DRAWS_H_
