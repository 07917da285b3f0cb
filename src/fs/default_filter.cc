#include "fs/default_filter.h"

#include "foundation/string_utils.h"

DefaultFilter::DefaultFilter(bool realtime) : realtime_(realtime) {
    offlineOnly_.max_load_factor(1.0);
    offlineOnly_[anyProcess_] = {".ds_store"};
}

bool DefaultFilter::IsOfflineOnly(const char* processName, const char* fileName) {
    if (offlineOnly_.empty()) return false;
    const std::string process = processName != nullptr ? processName : "";
    const std::string file = fileName != nullptr ? fileName : "";
    for (const auto& [pattern, names] : offlineOnly_) {
        if (!IsNameInExpressionA(pattern, process, true) && pattern != anyProcess_) continue;
        for (const auto& name : names) {
            if (IsNameInExpressionA(name, file, true)) return true;
        }
    }
    return false;
}

bool DefaultFilter::IsRealtimeUploadProcess(const char* processName) noexcept {
    // With real-time upload on, every writer streams; a host that streams
    // only some processes binds a filter of its own.
    return realtime_ && processName != nullptr;
}
