// HTTP requests to one WebDAV server through libcurl.
//
// Easy handles are pooled (a request takes one, or makes one, and gives it
// back), and connections, DNS answers and TLS sessions are shared between
// them, so requests from every thread reuse the open connections. No lock is
// held while a request runs.
//
// Every request has a time-out: connecting may take `timeoutSeconds`, and a
// transfer that moves no byte for that long is ended; requests without a
// streamed body must also finish within it. Idempotent requests are tried
// again, up to three times in all after pauses of 0.5 and 1 s, when the
// connection is refused, lost or times out, or the server answers 5xx (not
// 501 or 507) - unless part of the answer was already handed on.
#ifndef SKARVO_REMOTES_WEBDAV_HTTP_H_
#define SKARVO_REMOTES_WEBDAV_HTTP_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libfilesystem/log.h"
#include "remotes/curl_handles.h"
#include "remotes/local_errors.h"
#include "remotes/webdav_address.h"

constexpr long kDefaultWebdavTimeoutSeconds = 30;

struct HttpSettings {
    std::string user;       // empty: from ~/.netrc, if there
    std::string password;   // empty: from ~/.netrc, if there
    bool insecure = false;  // accept any certificate
    long timeoutSeconds = kDefaultWebdavTimeoutSeconds;
    ILog* log = nullptr;  // may be null
};

struct HttpRequest {
    std::string method;  // "GET", "PROPFIND", ...
    std::string path;    // encoded, from WebdavAddress::PathOf
    std::vector<std::string> headers;
    std::string body;  // a small request body (PROPFIND); ignored with readBody
    bool idempotent = true;
    bool streaming = false;  // large transfer: only stalls end it, not its length
    // A streamed request body of bodySize bytes: fills `buffer` from `offset`
    // (offsets may start again at 0 when the request is resent).
    std::function<Status(uint64_t offset, char* buffer, size_t size, size_t* got)> readBody;
    int64_t bodySize = -1;
    // Bytes of the body sent so far, as it goes.
    std::function<void(uint64_t sent)> onSent;
    // The response body as it comes; false stops the transfer. Without it the
    // body is collected into HttpResponse::body, up to kMaxCollectedBody.
    std::function<bool(const char* data, size_t size)> onData;
    // Asked while the transfer runs; false cancels it (code CANCEL).
    std::function<bool()> keepGoing;
};

struct HttpResponse {
    long status = 0;
    std::string statusLine;         // "HTTP/1.1 404 Not Found"
    std::string body;               // without onData
    std::string contentRange;       // the Content-Range header's value
    CURLcode transport = CURLE_OK;  // libcurl's result
    bool stoppedByReceiver = false;
    uint64_t delivered = 0;  // bytes handed to onData
};

class HttpClient {
  public:
    static constexpr size_t kMaxCollectedBody = size_t{64} << 20;

    HttpClient(WebdavAddress address, HttpSettings settings);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    const WebdavAddress& Address() const { return address_; }
    long TimeoutSeconds() const { return settings_.timeoutSeconds; }

    // Sends the request. SUCCESS for a 2xx answer (also when onData stopped
    // it); otherwise the code of webdav_errors.h with a text naming the
    // method, the path and the server's status line or the transport's
    // failure. Each failure is logged once, after the last try; while the
    // server cannot be reached, only the first failure and the first answer
    // after it are warnings.
    Status Send(const HttpRequest& request, HttpResponse* response);

  private:
    struct Transfer;
    Status SendOnce(const HttpRequest& request, HttpResponse* response);
    CurlEasy TakeHandle();
    void GiveBack(CurlEasy handle);
    curl_slist* Configure(CURL* curl, const HttpRequest& request, Transfer* transfer);
    void ConfigureTls(CURL* curl);
    void LogFailure(const Status& status);
    bool NoteReachability(const HttpResponse& response, const Status& status);

    const WebdavAddress address_;
    const HttpSettings settings_;
    CurlShare share_;
    std::mutex shareLocks_[CURL_LOCK_DATA_LAST];
    std::mutex poolMutex_;
    std::vector<CurlEasy> idle_;
    std::atomic<bool> unreachable_{false};  // the last request found no server
};

#endif  // SKARVO_REMOTES_WEBDAV_HTTP_H_
