#include "remotes/fault_source.h"

AERROR CutSource::Read(_READDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    if (request->offset >= cutoff_) return code_;
    const uint64_t left = static_cast<uint64_t>(cutoff_ - request->offset);
    if (request->size > left) request->size = left;
    return source_->Read(request);
}
