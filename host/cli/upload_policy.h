// What skarvo does when the upload of a closed file fails.
#ifndef SKARVO_CLI_UPLOAD_POLICY_H_
#define SKARVO_CLI_UPLOAD_POLICY_H_

#include <string>

enum class UploadFailureAction {
    kRetry,   // retry with growing pauses, then save to the recovery folder
    kSave,    // save to the recovery folder at once
    kCancel,  // drop the local changes; the remote file stays as it was
};

struct UploadPolicy {
    UploadFailureAction action = UploadFailureAction::kRetry;
    int retries = 5;          // per file, for kRetry
    std::string recoveryDir;  // absolute
};

#endif  // SKARVO_CLI_UPLOAD_POLICY_H_
