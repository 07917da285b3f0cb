#include "remotes/webdav_multistatus.h"

#include <curl/curl.h>
#include <libxml/parser.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "remotes/curl_handles.h"
#include "remotes/webdav_address.h"

namespace {

constexpr char kDavNamespace[] = "DAV:";

bool IsDav(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && node->ns != nullptr &&
           strcmp(reinterpret_cast<const char*>(node->ns->href), kDavNamespace) == 0 &&
           strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string TextOf(const xmlNode* node) {
    xmlChar* content = xmlNodeGetContent(node);
    std::string text = content != nullptr ? reinterpret_cast<const char*>(content) : "";
    xmlFree(content);
    const size_t start = text.find_first_not_of(" \t\r\n");
    const size_t end = text.find_last_not_of(" \t\r\n");
    return start == std::string::npos ? "" : text.substr(start, end - start + 1);
}

const xmlNode* Child(const xmlNode* node, const char* name) {
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (IsDav(child, name)) return child;
    }
    return nullptr;
}

// "2024-01-05T07:08:09Z" (or with a fraction or an offset) as UTC seconds.
time_t ParseIsoTime(const std::string& text) {
    struct tm parts {};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) return 0;
    time_t seconds = timegm(&parts);
    while (*rest == '.' || (*rest >= '0' && *rest <= '9'))
        ++rest;
    int hours = 0;
    int minutes = 0;
    if ((*rest == '+' || *rest == '-') && sscanf(rest + 1, "%d:%d", &hours, &minutes) == 2) {
        const time_t offset = hours * 3600 + minutes * 60;
        seconds += *rest == '+' ? -offset : offset;
    }
    return seconds;
}

uint64_t ParseCount(const std::string& text, bool* ok) {
    char* end = nullptr;
    const unsigned long long value = strtoull(text.c_str(), &end, 10);
    *ok = !text.empty() && text[0] != '-' && end != nullptr && *end == '\0';
    return *ok ? value : 0;
}

void ReadProperty(const xmlNode* prop, DavEntry* entry, int* quotaParts) {
    bool ok = false;
    if (IsDav(prop, "resourcetype")) {
        entry->folder = Child(prop, "collection") != nullptr;
    } else if (IsDav(prop, "getcontentlength")) {
        const uint64_t size = ParseCount(TextOf(prop), &ok);
        if (ok && size <= static_cast<uint64_t>(INT64_MAX))
            entry->size = static_cast<int64_t>(size);
    } else if (IsDav(prop, "getlastmodified")) {
        const time_t modified = curl_getdate(TextOf(prop).c_str(), nullptr);
        entry->modified = modified > 0 ? modified : 0;
    } else if (IsDav(prop, "creationdate")) {
        entry->created = ParseIsoTime(TextOf(prop));
    } else if (IsDav(prop, "getetag")) {
        std::string etag = TextOf(prop);
        if (etag.compare(0, 2, "W/") == 0) etag.erase(0, 2);
        entry->etag = etag;
    } else if (IsDav(prop, "quota-available-bytes")) {
        entry->quotaAvailable = ParseCount(TextOf(prop), &ok);
        *quotaParts += ok ? 1 : 0;
    } else if (IsDav(prop, "quota-used-bytes")) {
        entry->quotaUsed = ParseCount(TextOf(prop), &ok);
        *quotaParts += ok ? 1 : 0;
    }
}

// One <response>; false when it names no usable href.
bool ReadResponse(const xmlNode* response, const std::vector<std::string>& requestSegments,
                  DavEntry* entry) {
    const xmlNode* href = Child(response, "href");
    if (href == nullptr || !HrefSegments(TextOf(href), requestSegments, &entry->segments)) {
        return false;
    }
    int quotaParts = 0;
    for (const xmlNode* propstat = response->children; propstat != nullptr;
         propstat = propstat->next) {
        if (!IsDav(propstat, "propstat")) continue;
        const xmlNode* status = Child(propstat, "status");
        const xmlNode* prop = Child(propstat, "prop");
        if (prop == nullptr ||
            (status != nullptr && TextOf(status).find(" 200") == std::string::npos)) {
            continue;
        }
        for (const xmlNode* child = prop->children; child != nullptr; child = child->next)
            ReadProperty(child, entry, &quotaParts);
    }
    entry->hasQuota = quotaParts == 2;
    if (entry->folder) entry->size = 0;
    return true;
}

}  // namespace

std::string PropfindBody(bool quota) {
    return std::string(
               "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
               "<D:propfind xmlns:D=\"DAV:\"><D:prop>"
               "<D:resourcetype/><D:getcontentlength/><D:getlastmodified/>"
               "<D:creationdate/><D:getetag/>") +
           (quota ? "<D:quota-available-bytes/><D:quota-used-bytes/>" : "") +
           "</D:prop></D:propfind>\n";
}

Status ParseMultistatus(const std::string& body, const std::vector<std::string>& requestSegments,
                        std::vector<DavEntry>* entries) {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
    if (body.size() > static_cast<size_t>(INT32_MAX)) {
        return Status::Error(FAILED, "the listing is too large");
    }
    // No network access and no entity substitution: the answer is data only.
    XmlDoc doc(xmlReadMemory(body.data(), static_cast<int>(body.size()), "multistatus.xml", nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc) return Status::Error(FAILED, "the server's answer is not valid XML");
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || !IsDav(root, "multistatus")) {
        return Status::Error(FAILED, "the server's answer is not a WebDAV multistatus");
    }
    entries->clear();
    for (const xmlNode* node = root->children; node != nullptr; node = node->next) {
        if (!IsDav(node, "response")) continue;
        DavEntry entry;
        if (ReadResponse(node, requestSegments, &entry)) entries->push_back(std::move(entry));
    }
    return Status::Ok();
}
