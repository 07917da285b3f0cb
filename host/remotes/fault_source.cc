#include "remotes/fault_source.h"

#include <algorithm>
#include <thread>

AERROR CutSource::Read(_READDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    if (request->offset >= cutoff_) return code_;
    const uint64_t left = static_cast<uint64_t>(cutoff_ - request->offset);
    if (request->size > left) request->size = left;
    return source_->Read(request);
}

AERROR SlowSource::Read(_READDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    // A tenth of a second's worth at a time keeps the pace even.
    const uint64_t slice = std::max<uint64_t>(rate_ / 10, 1);
    if (request->size > slice) request->size = slice;
    const auto due = start_ + std::chrono::milliseconds(given_ * 1000 / rate_);
    const auto now = std::chrono::steady_clock::now();
    if (due > now) std::this_thread::sleep_for(due - now);
    const AERROR result = source_->Read(request);
    if (result == SUCCESS && request->read > 0) given_ += static_cast<uint64_t>(request->read);
    return result;
}
