// Node operations whose behaviour arrives with the data and upload side.
// Until then they answer that nothing is there to do.
#include "tree/file.h"

AERROR File::Fetch(long long, long long, std::shared_ptr<_FS_HANDLE>, IFetchCallback*) {
    return NOT_SUPPORTED;
}

AERROR File::Added(const char*, _FS_FILE_V2*) {
    return SUCCESS;
}
AERROR File::Removed(const char*, const char*) {
    return SUCCESS;
}
AERROR File::Changed(const char*, _FS_FILE_V2*) {
    return SUCCESS;
}
AERROR File::Refresh(const char*) {
    return SUCCESS;
}

int File::CountUploadings() {
    return 0;
}
void File::CancelUploadings() {}
void File::ProcessJobs() {}
