#include "remotes/webdav_address.h"

#include <cctype>
#include <cstdlib>

#include "remotes/path_parts.h"

namespace {

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

int DefaultPort(bool tls) {
    return tls ? 443 : 80;
}

// "host", "host:port", "[::1]:port" -> host and port.
Status SplitHostPort(const std::string& text, bool tls, WebdavAddress* address) {
    std::string host = text;
    std::string port;
    const size_t bracket = text.rfind(']');
    const size_t colon = text.rfind(':');
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    if (host.empty() || host.find_first_of(" /?#") != std::string::npos) {
        return Status::Error("the address names no valid host");
    }
    address->host = Lower(host);
    address->port = DefaultPort(tls);
    if (port.empty()) return Status::Ok();
    char* end = nullptr;
    const long number = strtol(port.c_str(), &end, 10);
    if (end == nullptr || *end != '\0' || number < 1 || number > 65535) {
        return Status::Error("the port '" + port + "' is not a number from 1 to 65535");
    }
    address->port = static_cast<int>(number);
    return Status::Ok();
}

bool IsUnreserved(unsigned char c) {
    return isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

}  // namespace

std::string WebdavAddress::Origin() const {
    std::string origin = (tls ? "https://" : "http://") + host;
    if (port != DefaultPort(tls)) origin += ":" + std::to_string(port);
    return origin;
}

std::string WebdavAddress::Identity() const {
    std::string text = tls ? "webdavs://" : "webdav://";
    if (!user.empty()) text += PercentEncodeSegment(user) + "@";
    text += host;
    if (port != DefaultPort(tls)) text += ":" + std::to_string(port);
    return text + PathOf("/", true);
}

std::string WebdavAddress::PathOf(const std::string& key, bool folder) const {
    std::string path;
    for (const std::string& segment : base)
        path += "/" + PercentEncodeSegment(segment);
    const std::vector<std::string> segments = KeySegments(key);
    for (const std::string& segment : segments)
        path += "/" + PercentEncodeSegment(segment);
    // The share itself is always a folder.
    if (folder || segments.empty()) path += "/";
    return path;
}

std::string WebdavAddress::UrlOf(const std::string& key, bool folder) const {
    return Origin() + PathOf(key, folder);
}

Status ParseWebdavAddress(bool tls, const std::string& location, WebdavAddress* address) {
    const char* scheme = tls ? "webdavs:" : "webdav:";
    if (location.compare(0, 2, "//") != 0) {
        return Status::Error(std::string("a WebDAV address looks like ") + scheme +
                             "//[user@]host[:port]/path");
    }
    const std::string rest = location.substr(2);
    const size_t slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    const std::string path = slash == std::string::npos ? "" : rest.substr(slash);
    if (path.find_first_of("?#") != std::string::npos) {
        return Status::Error("the address must not hold a query or a fragment");
    }
    WebdavAddress parsed;
    parsed.tls = tls;
    const size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        const std::string userinfo = authority.substr(0, at);
        if (userinfo.find(':') != std::string::npos) {
            // The password is not repeated in the message.
            return Status::Error(
                "the address holds a password; give it in ~/.netrc, SKARVO_WEBDAV_PASSWORD "
                "or --password-file instead");
        }
        if (!PercentDecode(userinfo, &parsed.user) || parsed.user.empty()) {
            return Status::Error("the user name in the address is not valid");
        }
        authority = authority.substr(at + 1);
    }
    const Status split = SplitHostPort(authority, tls, &parsed);
    if (!split.ok()) return split;
    for (const std::string& part : SplitPath(path)) {
        std::string decoded;
        if (!PercentDecode(part, &decoded) || !IsAcceptableDavName(decoded)) {
            return Status::Error("the path segment '" + part + "' is not valid");
        }
        parsed.base.push_back(decoded);
    }
    *address = std::move(parsed);
    return Status::Ok();
}

bool PercentDecode(const std::string& text, std::string* decoded) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size() || !isxdigit(static_cast<unsigned char>(text[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            return false;
        }
        out += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
    }
    *decoded = std::move(out);
    return true;
}

std::string PercentEncodeSegment(const std::string& segment) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : segment) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (IsUnreserved(byte)) {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
        }
    }
    return out;
}

bool HrefSegments(const std::string& href, const std::vector<std::string>& requestSegments,
                  std::vector<std::string>* segments) {
    std::string path = href;
    const size_t scheme = path.find("://");
    if (scheme != std::string::npos && path.find('/') > scheme) {
        const size_t slash = path.find('/', scheme + 3);
        path = slash == std::string::npos ? "/" : path.substr(slash);
    }
    path = path.substr(0, path.find_first_of("?#"));
    std::vector<std::string> out;
    if (path.empty() || path[0] != '/') out = requestSegments;
    for (const std::string& part : SplitPath(path)) {
        std::string decoded;
        if (!PercentDecode(part, &decoded)) return false;
        out.push_back(std::move(decoded));
    }
    *segments = std::move(out);
    return true;
}

std::vector<std::string> KeySegments(const std::string& key) {
    return SplitPath(key);
}

std::string NameOfKey(const std::string& key) {
    const std::vector<std::string> parts = SplitPath(key);
    return parts.empty() ? std::string() : parts.back();
}

bool IsAcceptableDavName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}
