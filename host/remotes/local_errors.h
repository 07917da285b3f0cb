// Failures of the remotes: the error objects ("cookies") that carry a readable text to the library.
#ifndef SKARVO_REMOTES_LOCAL_ERRORS_H_
#define SKARVO_REMOTES_LOCAL_ERRORS_H_

#include <string>

#include "common/status.h"
#include "libfilesystem/aerror.h"

// Stores the status's text as a new error object in *cookie (when cookie is
// not null and the status is a failure) and returns the status's code.
AERROR ReportStatus(const Status& status, void** cookie);

// The text of an error object made by ReportStatus, or "" for null.
const std::string& CookieText(void* cookie);
void FreeCookie(void* cookie);

#endif  // SKARVO_REMOTES_LOCAL_ERRORS_H_
