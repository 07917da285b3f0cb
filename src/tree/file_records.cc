#include "tree/file_records.h"

#include <mutex>
#include <set>

#include "services/log.h"

_FS_FILE_EXT& _FS_FILE_EXT::operator=(const _FS_FILE_V2& source) {
    static_cast<_FS_FILE_V1&>(*this) = source;
    values.assign(source.values.begin(), source.values.end());
    extra = source.extra;
    knownSize = source.size;
    return *this;
}

_FS_FILE_V2 _FS_FILE_EXT::Record() const {
    _FS_FILE_V2 record;
    static_cast<_FS_FILE_V1&>(record) = *this;
    record.values.assign(values.begin(), values.end());
    record.extra = extra;
    return record;
}

bool IsAcceptableName(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    // Paths given to the volume may separate their parts with backslashes,
    // so a name holding one could never be reached.
    return name.find_first_of(std::string("/\\\0", 3)) == std::string::npos;
}

bool IsHiddenByFuse(const std::string& name) {
    return name.compare(0, 12, ".fuse_hidden") == 0;
}

namespace {

// Logs once per remote item that a name with a backslash is left out.
void ReportUnreachable(const _FS_FILE_V2& record) {
    static std::mutex mutex;
    static std::set<std::string> reported;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!reported.insert(record.key).second) return;
    }
    __LOG__A(CurrentLogger(), LL_WARNING,
             "[FILESYSTEM] Not shown: %s (a name with a backslash cannot be reached through the "
             "volume)",
             record.key.c_str());
}

}  // namespace

bool AcceptRecord(const _FS_FILE_V2& record) {
    if (IsAcceptableName(record.name)) return true;
    if (record.name.find('\\') != std::string::npos && record.name.find('/') == std::string::npos) {
        ReportUnreachable(record);
        return false;
    }
    __LOG__A(CurrentLogger(), LL_WARNING, "[FILESYSTEM] No filename in data - %s/%d/%lld",
             record.key.c_str(), static_cast<int>(record.attributes),
             static_cast<long long>(record.size));
    return false;
}
