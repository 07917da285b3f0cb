#include "cli/realtime_filter.h"

#include <strings.h>

#include <algorithm>

RealtimeProcessFilter::RealtimeProcessFilter(std::shared_ptr<IFSFilter> previous,
                                             const std::vector<std::string>& names)
    : previous_(std::move(previous)), names_(names) {}

bool RealtimeProcessFilter::IsOfflineOnly(const char* processName, const char* fileName) {
    return previous_ && previous_->IsOfflineOnly(processName, fileName);
}

bool RealtimeProcessFilter::IsRealtimeUploadProcess(const char* processName) noexcept {
    if (processName == nullptr) return false;
    return std::any_of(names_.begin(), names_.end(), [&](const std::string& name) {
        return strcasecmp(name.c_str(), processName) == 0;
    });
}
