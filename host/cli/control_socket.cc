#include "cli/control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/stable_hash.h"

namespace {

constexpr size_t kMaxRequest = 4096;
constexpr int kRequestTimeoutMs = 5000;

std::string RuntimeFolder() {
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/skarvo";
    if (geteuid() == 0) return "/run/skarvo";
    return "/tmp/skarvo-" + std::to_string(geteuid());
}

// A stable, short name for any mount point.
std::string NameFor(const std::string& mountPoint) {
    const uint64_t hash = StableHash(mountPoint);
    char name[32];
    snprintf(name, sizeof(name), "%016llx.sock", static_cast<unsigned long long>(hash));
    return name;
}

Status AddressOf(const std::string& path, sockaddr_un* address) {
    *address = sockaddr_un();
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        return Status::Error("the control socket path " + path + " is too long");
    }
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return Status::Ok();
}

Status Connect(const std::string& path, UniqueFd* connected) {
    sockaddr_un address;
    if (const Status failed = AddressOf(path, &address); !failed.ok()) return failed;
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid() ||
        connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return Status::Error(strerror(errno));
    }
    *connected = std::move(fd);
    return Status::Ok();
}

bool FromSameUser(int connection) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == geteuid() || peer.uid == 0;
}

// The request line, read within kRequestTimeoutMs.
bool ReadRequest(int connection, std::string* request) {
    char buffer[kMaxRequest];
    size_t have = 0;
    while (have < sizeof(buffer)) {
        pollfd ready{connection, POLLIN, 0};
        if (poll(&ready, 1, kRequestTimeoutMs) <= 0) return false;
        const ssize_t got = read(connection, buffer + have, sizeof(buffer) - have);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        have += static_cast<size_t>(got);
        if (memchr(buffer, '\n', have) != nullptr) break;
    }
    const char* end = static_cast<const char*>(memchr(buffer, '\n', have));
    if (end == nullptr) return false;
    request->assign(buffer, static_cast<size_t>(end - buffer));
    return true;
}

// Like WriteAll, without SIGPIPE when the other side has gone.
bool SendAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t sent = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

}  // namespace

Status ControlSocketPath(const std::string& mountPoint, std::string* path) {
    const std::string folder = RuntimeFolder();
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        return Status::Error("cannot create " + folder + ": " + strerror(errno));
    }
    struct stat info {};
    if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid() ||
        (info.st_mode & 077) != 0) {
        return Status::Error(folder +
                             " must be a folder of this user that nobody else may use (chmod 700)");
    }
    *path = folder + "/" + NameFor(mountPoint);
    return Status::Ok();
}

Status ControlServer::Start(const std::string& path, Handler handler,
                            std::unique_ptr<ControlServer>* started) {
    UniqueFd other;
    if (Connect(path, &other).ok()) return Status::Error("another skarvo answers on " + path);
    unlink(path.c_str());  // left by a skarvo that died
    sockaddr_un address;
    if (const Status failed = AddressOf(path, &address); !failed.ok()) return failed;
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const mode_t mask = umask(077);
    const bool bound =
        listener.Valid() &&
        bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    umask(mask);
    if (!bound || listen(listener.Get(), 8) != 0) {
        return Status::Error("cannot listen on " + path + ": " + strerror(errno));
    }
    std::unique_ptr<ControlServer> server(
        new ControlServer(path, std::move(listener), std::move(handler)));
    int wake[2];
    if (pipe2(wake, O_CLOEXEC) != 0) {
        return Status::Error(std::string("cannot make a pipe: ") + strerror(errno));
    }
    server->wakeRead_.Reset(wake[0]);
    server->wakeWrite_.Reset(wake[1]);
    server->thread_ = std::thread([raw = server.get()] { raw->Serve(); });
    *started = std::move(server);
    return Status::Ok();
}

ControlServer::ControlServer(std::string path, UniqueFd listener, Handler handler)
    : path_(std::move(path)), listener_(std::move(listener)), handler_(std::move(handler)) {}

ControlServer::~ControlServer() {
    if (thread_.joinable()) {
        const char stop = 's';
        (void)!write(wakeWrite_.Get(), &stop, 1);
        thread_.join();
    }
    unlink(path_.c_str());
}

void ControlServer::Serve() {
    for (;;) {
        pollfd ready[2] = {{listener_.Get(), POLLIN, 0}, {wakeRead_.Get(), POLLIN, 0}};
        if (poll(ready, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (ready[1].revents != 0) return;
        UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.Valid()) Answer(connection.Get());
    }
}

void ControlServer::Answer(int connection) {
    std::string request;
    if (!FromSameUser(connection) || !ReadRequest(connection, &request)) return;
    const Writer write = [connection](const std::string& text) {
        return SendAll(connection, text);
    };
    handler_(request, write);
}

Status AskControl(const std::string& path, const std::string& request,
                  const std::function<void(const std::string& line)>& line) {
    UniqueFd fd;
    if (const Status failed = Connect(path, &fd); !failed.ok()) return failed;
    if (!SendAll(fd.Get(), request + "\n")) return Status::Error(strerror(errno));
    std::string pending;
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return Status::Error(strerror(errno));
        if (got == 0) break;
        pending.append(buffer, static_cast<size_t>(got));
        for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
            line(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    if (!pending.empty()) line(pending);
    return Status::Ok();
}

Status AskControl(const std::string& path, const std::string& request, std::string* reply) {
    reply->clear();
    return AskControl(path, request, [reply](const std::string& line) { *reply += line + "\n"; });
}
