#include "remotes/webdav_http.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "remotes/webdav_errors.h"

namespace {

constexpr int kAttempts = 3;
constexpr size_t kMaxIdleHandles = 8;

void InitCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

void LockShare(CURL*, curl_lock_data data, curl_lock_access, void* context) {
    static_cast<std::mutex*>(context)[data].lock();
}

void UnlockShare(CURL*, curl_lock_data data, void* context) {
    static_cast<std::mutex*>(context)[data].unlock();
}

std::string Trimmed(const char* data, size_t size) {
    std::string text(data, size);
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

}  // namespace

// The state of one request while libcurl runs it.
struct HttpClient::Transfer {
    const HttpRequest* request = nullptr;
    HttpResponse* response = nullptr;
    Status bodyFailure;  // why readBody failed
    bool bodyTooLarge = false;
    bool cancelled = false;
    uint64_t offset = 0;  // of the request body
    char error[CURL_ERROR_SIZE] = "";

    static size_t OnHeader(char* data, size_t size, size_t count, void* context) {
        auto* self = static_cast<Transfer*>(context);
        const size_t bytes = size * count;
        const std::string line = Trimmed(data, bytes);
        if (line.compare(0, 5, "HTTP/") == 0) {
            self->response->statusLine = line;
            self->response->contentRange.clear();
        } else if (strncasecmp(line.c_str(), "content-range:", 14) == 0) {
            const size_t start = line.find_first_not_of(' ', 14);
            self->response->contentRange = start == std::string::npos ? "" : line.substr(start);
        }
        return bytes;
    }

    static size_t OnData(char* data, size_t size, size_t count, void* context) {
        auto* self = static_cast<Transfer*>(context);
        const size_t bytes = size * count;
        HttpResponse* response = self->response;
        // Error pages are collected for the message, never handed on.
        long status = 0;
        if (const size_t space = response->statusLine.find(' '); space != std::string::npos) {
            status = strtol(response->statusLine.c_str() + space + 1, nullptr, 10);
        }
        if (self->request->onData && status >= 200 && status < 300) {
            if (!self->request->onData(data, bytes)) {
                response->stoppedByReceiver = true;
                return 0;
            }
            response->delivered += bytes;
            return bytes;
        }
        if (response->body.size() + bytes > kMaxCollectedBody) {
            self->bodyTooLarge = true;
            return 0;
        }
        response->body.append(data, bytes);
        return bytes;
    }

    static size_t OnRead(char* buffer, size_t size, size_t count, void* context) {
        auto* self = static_cast<Transfer*>(context);
        const HttpRequest& request = *self->request;
        const uint64_t left = static_cast<uint64_t>(request.bodySize) - self->offset;
        const size_t want = static_cast<size_t>(std::min<uint64_t>(size * count, left));
        if (want == 0) return 0;
        size_t got = 0;
        self->bodyFailure = request.readBody(self->offset, buffer, want, &got);
        if (!self->bodyFailure.ok() || got == 0 || got > want) {
            if (self->bodyFailure.ok()) {
                self->bodyFailure = Status::Error(FILE_READ_FAILED, "the data to send ended");
            }
            return CURL_READFUNC_ABORT;
        }
        self->offset += got;
        if (request.onSent) request.onSent(self->offset);
        return got;
    }

    static int OnSeek(void* context, curl_off_t offset, int origin) {
        auto* self = static_cast<Transfer*>(context);
        if (origin != SEEK_SET || offset < 0 || offset > self->request->bodySize) {
            return CURL_SEEKFUNC_CANTSEEK;
        }
        self->offset = static_cast<uint64_t>(offset);
        return CURL_SEEKFUNC_OK;
    }

    static int OnProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        auto* self = static_cast<Transfer*>(context);
        if (self->request->keepGoing && !self->request->keepGoing()) {
            self->cancelled = true;
            return 1;
        }
        return 0;
    }
};

HttpClient::HttpClient(WebdavAddress address, HttpSettings settings)
    : address_(std::move(address)), settings_(std::move(settings)) {
    InitCurlOnce();
    share_.reset(curl_share_init());
    if (share_) {
        curl_share_setopt(share_.get(), CURLSHOPT_LOCKFUNC, LockShare);
        curl_share_setopt(share_.get(), CURLSHOPT_UNLOCKFUNC, UnlockShare);
        curl_share_setopt(share_.get(), CURLSHOPT_USERDATA, shareLocks_);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(share_.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
}

HttpClient::~HttpClient() {
    // Handles first: they still refer to the share.
    idle_.clear();
    share_.reset();
}

CurlEasy HttpClient::TakeHandle() {
    {
        std::lock_guard<std::mutex> lock(poolMutex_);
        if (!idle_.empty()) {
            CurlEasy handle = std::move(idle_.back());
            idle_.pop_back();
            return handle;
        }
    }
    return CurlEasy(curl_easy_init());
}

void HttpClient::GiveBack(CurlEasy handle) {
    std::lock_guard<std::mutex> lock(poolMutex_);
    if (idle_.size() < kMaxIdleHandles) idle_.push_back(std::move(handle));
}

void HttpClient::ConfigureTls(CURL* curl) {
    if (!address_.tls) return;
    if (settings_.insecure) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    // SKARVO_WEBDAV_CA names extra trusted certificates (a private CA).
    if (const char* ca = getenv("SKARVO_WEBDAV_CA"); ca != nullptr && ca[0] != '\0') {
        curl_easy_setopt(curl, CURLOPT_CAINFO, ca);
    }
}

curl_slist* HttpClient::Configure(CURL* curl, const HttpRequest& request, Transfer* transfer) {
    const std::string url = address_.Origin() + request.path;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_SHARE, share_.get());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, transfer->error);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, settings_.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, settings_.timeoutSeconds);
    if (!request.streaming) curl_easy_setopt(curl, CURLOPT_TIMEOUT, settings_.timeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
    if (!settings_.user.empty()) curl_easy_setopt(curl, CURLOPT_USERNAME, settings_.user.c_str());
    if (!settings_.password.empty()) {
        curl_easy_setopt(curl, CURLOPT_PASSWORD, settings_.password.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    ConfigureTls(curl);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Transfer::OnHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, transfer);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Transfer::OnData);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, transfer);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &Transfer::OnProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, transfer);
    if (request.readBody) {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Transfer::OnRead);
        curl_easy_setopt(curl, CURLOPT_READDATA, transfer);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, &Transfer::OnSeek);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, transfer);
    } else if (!request.body.empty()) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
    }
    if (request.method != "GET" && request.method != "PUT") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    curl_slist* headers = nullptr;
    for (const std::string& header : request.headers)
        headers = curl_slist_append(headers, header.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    return headers;
}

Status HttpClient::SendOnce(const HttpRequest& request, HttpResponse* response) {
    *response = HttpResponse();
    CurlEasy handle = TakeHandle();
    if (!handle) return Status::Error(FAILED, "libcurl could not make a handle");
    Transfer transfer;
    transfer.request = &request;
    transfer.response = response;
    CurlList headers(Configure(handle.get(), request, &transfer));
    const CURLcode code = curl_easy_perform(handle.get());
    response->transport = code;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &response->status);
    curl_easy_reset(handle.get());
    GiveBack(std::move(handle));

    const std::string what = request.method + " " + request.path + ": ";
    if (transfer.cancelled) return Status::Error(CANCEL, what + "cancelled");
    if (!transfer.bodyFailure.ok()) {
        return Status::Error(transfer.bodyFailure.code(), what + transfer.bodyFailure.message());
    }
    if (transfer.bodyTooLarge) {
        return Status::Error(FAILED, what + "the answer is larger than " +
                                         std::to_string(kMaxCollectedBody >> 20) + " MiB");
    }
    if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && response->stoppedByReceiver)) {
        const std::string detail =
            transfer.error[0] != '\0' ? transfer.error : curl_easy_strerror(code);
        return Status::Error(MapCurlCode(code), what + detail);
    }
    const AERROR mapped = MapHttpStatus(response->status, request.method);
    if (mapped != SUCCESS) {
        const std::string line = response->statusLine.empty()
                                     ? "HTTP status " + std::to_string(response->status)
                                     : response->statusLine;
        return Status::Error(mapped, what + line);
    }
    return Status::Ok();
}

Status HttpClient::Send(const HttpRequest& request, HttpResponse* response) {
    Status status;
    for (int attempt = 1;; ++attempt) {
        status = SendOnce(request, response);
        if (status.ok() || attempt >= kAttempts || !request.idempotent || response->delivered > 0) {
            break;
        }
        const bool transient = response->transport != CURLE_OK
                                   ? IsTransientCurlCode(response->transport)
                                   : IsTransientStatus(response->status);
        if (!transient || status.code() == CANCEL) break;
        if (settings_.log != nullptr) {
            settings_.log->Log(LL_DEBUG, "webdav: %s; trying again", status.message().c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500 << (attempt - 1)));
    }
    if (status.code() == CANCEL) return status;
    if (NoteReachability(*response, status)) return status;
    if (!status.ok()) LogFailure(status);
    return status;
}

// A server that stops answering would otherwise give a warning for every
// request; the user needs one line when it goes and one when it is back.
// True when the failure is one of the server not being reached.
bool HttpClient::NoteReachability(const HttpResponse& response, const Status& status) {
    const bool unreachable =
        IsTransientCurlCode(response.transport) || response.transport == CURLE_COULDNT_RESOLVE_HOST;
    const bool was = unreachable_.exchange(unreachable);
    if (settings_.log == nullptr || unreachable == was) {
        if (unreachable && settings_.log != nullptr) {
            settings_.log->Log(LL_DEBUG, "webdav: %s (%s)", status.message().c_str(),
                               GetAERRORA(status.code()));
        }
        return unreachable;
    }
    if (unreachable) {
        settings_.log->Log(LL_WARNING, "webdav: %s cannot be reached: %s (%s); trying on",
                           address_.Origin().c_str(), status.message().c_str(),
                           GetAERRORA(status.code()));
    } else {
        settings_.log->Log(LL_WARNING, "webdav: %s answers again", address_.Origin().c_str());
    }
    return unreachable;
}

void HttpClient::LogFailure(const Status& status) {
    if (settings_.log == nullptr) return;
    // A missing item is an everyday answer (a lookup of a new name).
    const LOGLEVEL level = status.code() == FILE_NOT_FOUND ? LL_DEBUG : LL_WARNING;
    settings_.log->Log(level, "webdav: %s (%s)", status.message().c_str(),
                       GetAERRORA(status.code()));
}
