// Addresses of WebDAV shares, "webdav://[user@]host[:port]/path" (plain
// HTTP) and "webdavs://..." (TLS), and the paths of items below them.
//
// Item keys are the decoded paths below the share with a leading "/" ("/"
// for the share itself, "/docs/a b.txt"); on the wire every path segment is
// percent-encoded, keeping only letters, digits and "-._~".
#ifndef SKARVO_REMOTES_WEBDAV_ADDRESS_H_
#define SKARVO_REMOTES_WEBDAV_ADDRESS_H_

#include <string>
#include <vector>

#include "common/status.h"

struct WebdavAddress {
    bool tls = false;
    std::string user;  // empty: none given
    std::string host;  // lower case; IPv6 literals keep their brackets
    int port = 0;
    std::vector<std::string> base;  // decoded segments of the share's path

    // "http://host:port" or "https://host:port".
    std::string Origin() const;
    // The normalised address with the user name and without a password:
    // "webdav://alice@host:8080/share/" (default ports left out).
    std::string Identity() const;
    // The encoded request path of `key` ("/share/docs/a%20b.txt"), with a
    // trailing "/" when `folder`.
    std::string PathOf(const std::string& key, bool folder) const;
    // The full URL of `key`, for the Destination header.
    std::string UrlOf(const std::string& key, bool folder) const;
};

// Parses what follows "webdav:" or "webdavs:" (`tls` tells which). Fails,
// saying why in one line, for a malformed address, a bad port, or a password
// in it (passwords never go on the command line).
Status ParseWebdavAddress(bool tls, const std::string& location, WebdavAddress* address);

// Percent-decodes `text`; false for a malformed escape.
bool PercentDecode(const std::string& text, std::string* decoded);
std::string PercentEncodeSegment(const std::string& segment);

// The decoded segments of an href from a listing: an absolute URL, an
// absolute path, or a path relative to `requestSegments` (decoded). False
// for a malformed escape. Empty segments are dropped; "." and ".." are kept
// as they are, and a decoded segment may hold "/" (an encoded slash), for the
// caller to refuse.
bool HrefSegments(const std::string& href, const std::vector<std::string>& requestSegments,
                  std::vector<std::string>* segments);

// "/a/b" -> {"a", "b"}; "/" -> {}. Keys are joined and split with the
// helpers of local_paths.h, which use the same form.
std::vector<std::string> KeySegments(const std::string& key);
// The last segment of a key; "" for the root.
std::string NameOfKey(const std::string& key);
// Whether a server's name can stand for an item: not empty, ".", "..", and
// without "/" or NUL.
bool IsAcceptableDavName(const std::string& name);

#endif  // SKARVO_REMOTES_WEBDAV_ADDRESS_H_
