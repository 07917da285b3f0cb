#include "tree/file_records.h"

#include "api/log.h"

bool IsAcceptableName(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool AcceptRecord(const _FS_FILE_V2& record) {
    if (IsAcceptableName(record.name)) return true;
    __LOG__A(CurrentLogger(), LL_WARNING, "[FILESYSTEM] No filename in data - %s/%d/%lld",
             record.key.c_str(), static_cast<int>(record.attributes),
             static_cast<long long>(record.size));
    return false;
}
