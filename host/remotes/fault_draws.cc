#include "remotes/fault_draws.h"

namespace {

// SplitMix64's finaliser: spreads a counter over all 64 bits.
uint64_t Mix(uint64_t value) {
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

}  // namespace

uint64_t FaultDraws::Next(FaultOp op) {
    const size_t index = static_cast<size_t>(op);
    const uint64_t count = drawn_[index].fetch_add(1, std::memory_order_relaxed);
    return Mix(Mix(seed_ ^ (index << 56)) ^ count);
}

bool FaultDraws::Hit(FaultOp op, double fraction) {
    if (fraction <= 0) return false;
    if (fraction >= 1) return true;
    // The top 53 bits as a number in [0, 1).
    return static_cast<double>(Next(op) >> 11) * 0x1.0p-53 < fraction;
}
