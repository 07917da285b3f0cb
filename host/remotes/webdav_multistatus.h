// The PROPFIND request body and the multistatus answer, read with libxml2.
#ifndef SKARVO_REMOTES_WEBDAV_MULTISTATUS_H_
#define SKARVO_REMOTES_WEBDAV_MULTISTATUS_H_

#include <time.h>

#include <cstdint>
#include <string>
#include <vector>

#include "remotes/local_errors.h"

// One <response> of a multistatus answer.
struct DavEntry {
    std::vector<std::string> segments;  // decoded path (see HrefSegments)
    bool folder = false;                // resourcetype holds collection
    int64_t size = 0;                   // getcontentlength
    time_t modified = 0;                // getlastmodified; 0 when missing
    time_t created = 0;                 // creationdate; 0 when missing
    std::string etag;                   // getetag without a "W/" mark
    bool hasQuota = false;              // both quota properties were given
    uint64_t quotaAvailable = 0;
    uint64_t quotaUsed = 0;
};

// The body of a PROPFIND for the properties above; the quota ones only when
// `quota`.
std::string PropfindBody(bool quota);

// Reads a multistatus answer to a request for `requestSegments`. Properties
// in a propstat whose status is not 200 are ignored. Malformed XML, or
// an answer that is no multistatus, is FAILED with a text saying so; hrefs
// that cannot be decoded are left out.
Status ParseMultistatus(const std::string& body, const std::vector<std::string>& requestSegments,
                        std::vector<DavEntry>* entries);

#endif  // SKARVO_REMOTES_WEBDAV_MULTISTATUS_H_
