#include "export/export_service.h"

#include "services/log.h"

int ExportServiceRPC::GetDriverState() {
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Skarvo filesystem installed");
    return 0;
}

int ExportServiceRPC::Mount(MountParameter&) {
    return NOT_SUPPORTED;
}
