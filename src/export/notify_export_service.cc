#include "export/notify_export_service.h"

const char* NotifyExportService::GetEventMsg(NOTIFYEVENT event) {
    switch (event) {
        case NE_RENAMEITEM:
            return "NE_RENAMEITEM";
        case NE_CREATE:
            return "NE_CREATE";
        case NE_DELETE:
            return "NE_DELETE";
        case NE_MKDIR:
            return "NE_MKDIR";
        case NE_RMDIR:
            return "NE_RMDIR";
        case NE_DRIVE_REMOVE:
            return "NE_DRIVE_REMOVE";
        case NE_DRIVE_ADD:
            return "NE_DRIVE_ADD";
        case NE_UPDATEDIR:
            return "NE_UPDATEDIR";
        case NE_UPDATEITEM:
            return "NE_UPDATEITEM";
        case NE_RENAMEFOLDER:
            return "NE_RENAMEFOLDER";
        case NE_FREESPACE:
            return "NE_FREESPACE";
    }
    return "Unknown";
}
