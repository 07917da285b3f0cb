#include "cli/realtime_filter.h"

#include <algorithm>
#include <cctype>

namespace {

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace

RealtimeProcessFilter::RealtimeProcessFilter(std::shared_ptr<IFSFilter> previous,
                                             const std::vector<std::string>& names)
    : previous_(std::move(previous)) {
    for (const std::string& name : names)
        names_.push_back(Lower(name));
}

bool RealtimeProcessFilter::IsOfflineOnly(const char* processName, const char* fileName) {
    return previous_ && previous_->IsOfflineOnly(processName, fileName);
}

bool RealtimeProcessFilter::IsRealtimeUploadProcess(const char* processName) noexcept {
    if (processName == nullptr) return false;
    try {
        return std::find(names_.begin(), names_.end(), Lower(processName)) != names_.end();
    } catch (...) {
        return false;
    }
}
