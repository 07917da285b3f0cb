#include "remotes/webdav_module.h"

#include <utility>

#include "remotes/webdav_password.h"
#include "remotes/webdav_protocol.h"

namespace {

Status OpenShare(bool tls, const std::string& location, const RemoteOptions& options,
                 OpenedRemote* opened) {
    WebdavAddress address;
    if (const Status failed = ParseWebdavAddress(tls, location, &address); !failed.ok()) {
        return failed;
    }
    HttpSettings settings;
    settings.user = address.user;
    if (!options.password.empty()) {
        settings.password = options.password;
    } else if (const Status failed = LoadWebdavPassword(options.passwordFile, &settings.password);
               !failed.ok()) {
        return failed;
    }
    settings.insecure = options.insecure;
    settings.timeoutSeconds = options.timeoutSeconds;
    settings.log = options.log;
    auto protocol = std::make_shared<WebdavProtocol>(std::move(address), std::move(settings));
    if (const Status failed = protocol->Check(); !failed.ok()) return failed;
    opened->protocol = std::move(protocol);
    return Status::Ok();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void skarvo_open_webdav(
    bool tls, const std::string& location, const RemoteOptions& options, OpenedRemote* opened,
    Status* status) {
    // Checks the entry point against the type skarvo calls it through.
    static_assert(std::is_same_v<decltype(&skarvo_open_webdav), OpenWebdavEntry>);
    *status = OpenShare(tls, location, options, opened);
}
