#include "remotes/local_record.h"

#include "remotes/local_paths.h"

std::string FormatRecordTime(const struct timespec& time) {
    struct tm utc {};
    const time_t seconds = time.tv_sec;
    char text[64];
    if (gmtime_r(&seconds, &utc) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000Z", &utc) == 0) {
        return "1970-01-01T00:00:00.000Z";
    }
    return text;
}

void FillRecord(const std::string& key, const std::string& name, const struct stat& st,
                _FS_FILE_V2* record) {
    const bool folder = S_ISDIR(st.st_mode);
    record->key = key;
    record->name = name;
    record->attributes = folder ? FILE_ATTRIBUTE_FOLDER : FILE_ATTRIBUTE_FILE;
    record->size = folder ? 0 : static_cast<int64_t>(st.st_size);
    // Linux keeps no creation time in stat; the status change time is no
    // substitute, as every rename, chmod or upload moves it and tools that
    // compare times before and after reading (tar) would see the file change.
    record->createTime = FormatRecordTime(st.st_mtim);
    record->accessTime = FormatRecordTime(st.st_atim);
    record->modifyTime = FormatRecordTime(st.st_mtim);
}

Status ReadRecord(const LocalPaths& paths, const std::string& key, _FS_FILE_V2* record) {
    struct stat st {};
    Status status = paths.StatKey(key, &st);
    if (!status.ok()) return status;
    const std::string name = key == kLocalRootKey ? std::string() : key.substr(key.rfind('/') + 1);
    FillRecord(key, name, st, record);
    return Status::Ok();
}
