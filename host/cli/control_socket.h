// The control channel of a running skarvo: a Unix socket per mount point,
// through which `skarvo status` (and other commands of the same user) talk
// to the skarvo that serves it. The socket lives in a folder only its owner
// may enter ($XDG_RUNTIME_DIR/skarvo, else /run/skarvo for root and
// /tmp/skarvo-UID for others), is itself private (0600), and only
// connections of the same user, or root, are answered.
//
// One exchange per connection: the client sends one request line and reads
// the reply until the server closes the connection.
#ifndef SKARVO_CLI_CONTROL_SOCKET_H_
#define SKARVO_CLI_CONTROL_SOCKET_H_

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "common/status.h"
#include "libfilesystem/unique_fd.h"

// The socket of the absolute mount point `mountPoint`, in *path; fails,
// saying why, when its folder cannot be made private.
Status ControlSocketPath(const std::string& mountPoint, std::string* path);

class ControlServer {
  public:
    // Writes part of the reply; false once the client has gone.
    using Writer = std::function<bool(const std::string& text)>;
    using Handler = std::function<void(const std::string& request, const Writer& write)>;

    // Listens on `path`, replacing a socket that nobody serves, with the
    // server in *started. Fails, saying why, when it cannot, or when a live
    // skarvo serves it.
    static Status Start(const std::string& path, Handler handler,
                        std::unique_ptr<ControlServer>* started);
    // Stops answering and removes the socket.
    ~ControlServer();

    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

  private:
    ControlServer(std::string path, UniqueFd listener, Handler handler);
    void Serve();
    void Answer(int connection);

    const std::string path_;
    const UniqueFd listener_;
    const Handler handler_;
    UniqueFd wakeRead_;
    UniqueFd wakeWrite_;
    std::thread thread_;
};

// Sends `request` to the skarvo listening on `path` and collects its reply.
// Fails, saying why, when no skarvo answers there.
Status AskControl(const std::string& path, const std::string& request, std::string* reply);
// The same, handing each line of the reply to `line` as it comes.
Status AskControl(const std::string& path, const std::string& request,
                  const std::function<void(const std::string& line)>& line);

#endif  // SKARVO_CLI_CONTROL_SOCKET_H_
