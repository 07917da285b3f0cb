#include "remotes/webdav_errors.h"

AERROR MapHttpStatus(long status, const std::string& method) {
    if (status >= 200 && status < 300) return SUCCESS;
    switch (status) {
        case 401:
            return AUTH_FAILED;
        case 403:
            return ACCESS_DENIED;
        case 404:
        case 410:
            return FILE_NOT_FOUND;
        case 405:
            return method == "MKCOL" ? ALREADY_EXISTS : NOT_SUPPORTED;
        case 409:
            return PATH_NOT_FOUND;
        case 412:
            return method == "PUT" ? SHARING_VIOLATION : ALREADY_EXISTS;
        case 413:
        case 507:
            return FILE_WRITE_FAILED;
        case 423:
            return SHARING_VIOLATION;
        case 502:
        case 503:
        case 504:
            return SOCK_TEMPORARY_ERROR;
        default:
            return FAILED;
    }
}

AERROR MapCurlCode(CURLcode code) {
    switch (code) {
        case CURLE_OK:
            return SUCCESS;
        case CURLE_COULDNT_CONNECT:
            return SOCK_CONNECTION_REFUSED;
        case CURLE_COULDNT_RESOLVE_HOST:
            return SOCK_HOST_NOT_FOUND;
        case CURLE_COULDNT_RESOLVE_PROXY:
            return SOCK_PROXY_NOT_FOUND;
        case CURLE_OPERATION_TIMEDOUT:
            return SOCK_TIMEOUT;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return SOCK_REMOTE_HOST_CLOSED;
        case CURLE_SSL_CONNECT_ERROR:
            return SOCK_SSL_HANDSHAKE_FAILED;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return CERT_INVALID;
        case CURLE_LOGIN_DENIED:
            return AUTH_FAILED;
        default:
            return SOCK_NETWORK_ERROR;
    }
}

bool IsTransientCurlCode(CURLcode code) {
    switch (code) {
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return true;
        default:
            return false;
    }
}

bool IsTransientStatus(long status) {
    return status >= 500 && status != 501 && status != 507;
}
