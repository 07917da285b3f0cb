#include "services/cache_records.h"

std::string EntryOrigin::VolumePath(const std::string& key) const {
    if (known) return path;
    std::string fromKey = key;
    for (char& c : fromKey) {
        if (c == '\\') c = '/';
    }
    return fromKey;
}

bool EntryOrigin::operator==(const EntryOrigin& other) const {
    return known == other.known && path == other.path && remote == other.remote &&
           based == other.based && baseSize == other.baseSize &&
           baseModifyTime == other.baseModifyTime && baseExtra == other.baseExtra;
}

bool IsValidEntryName(const std::string& name) {
    if (name.empty() || name.size() > 64) return false;
    return name.find_first_not_of("0123456789abcdef-") == std::string::npos;
}
