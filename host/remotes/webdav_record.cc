#include "remotes/webdav_record.h"

#include "remotes/local_record.h"
#include "remotes/webdav_address.h"

namespace {

std::string TimeText(time_t seconds) {
    struct timespec time {};
    time.tv_sec = seconds;
    return FormatRecordTime(time);
}

}  // namespace

void FillDavRecord(const std::string& key, const DavEntry& entry, _FS_FILE_V2* record) {
    record->key = key;
    record->name = NameOfKey(key);
    record->attributes = entry.folder ? FILE_ATTRIBUTE_FOLDER : FILE_ATTRIBUTE_FILE;
    record->size = entry.folder ? 0 : entry.size;
    record->modifyTime = TimeText(entry.modified);
    record->accessTime = record->modifyTime;
    // The volume shows createTime as the status change time, which tools
    // such as tar compare before and after reading; the server's creation
    // date would move with every upload, so the modification time stands in.
    record->createTime = record->modifyTime;
    record->extra = entry.folder ? std::string() : entry.etag;
}

DavItemState DavStateOf(const DavEntry& entry) {
    return DavItemState{entry.folder, entry.folder ? 0 : entry.size, entry.etag};
}
