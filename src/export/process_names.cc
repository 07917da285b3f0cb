#include "export/process_names.h"

std::string ProcessNames::Get(pid_t pid) {
    const auto now = Clock::now();
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = names_.find(pid);
        if (found != names_.end() && now - found->second.read < std::chrono::seconds(1)) {
            return found->second.name;
        }
    }
    std::string name = reader_(pid);
    std::lock_guard<std::mutex> guard(lock_);
    // Many short-lived processes (a build, a shell loop) would otherwise
    // grow the table without bound.
    if (names_.size() >= kMaxEntries) names_.clear();
    names_[pid] = Entry{name, now};
    return name;
}
