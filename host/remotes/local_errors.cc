#include "remotes/local_errors.h"

#include <utility>

namespace {

// What a cookie points to.
struct LocalCookie {
    std::string text;
};

}  // namespace

AERROR ReportStatus(const Status& status, void** cookie) {
    if (!status.ok() && cookie != nullptr) {
        *cookie = new LocalCookie{status.message().empty() ? GetAERRORA(status.code())
                                                           : status.message()};
    }
    return status.code();
}

const std::string& CookieText(void* cookie) {
    static const std::string kEmpty;
    return cookie == nullptr ? kEmpty : static_cast<LocalCookie*>(cookie)->text;
}

void FreeCookie(void* cookie) {
    delete static_cast<LocalCookie*>(cookie);
}
