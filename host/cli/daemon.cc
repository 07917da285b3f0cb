#include "cli/daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libfilesystem/unique_fd.h"

namespace {

constexpr char kReady[] = "mounted ";  // then the log file's path

std::string ReadAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return text;
        text.append(buffer, static_cast<size_t>(got));
    }
}

// The child's standard streams once the volume is mounted: nothing on the
// terminal; standard error, where the default logger writes, to the log.
std::string Detach(const std::string& logFile, const std::string& cacheFolder) {
    const std::string path = logFile.empty() ? cacheFolder + "/skarvo.log" : logFile;
    UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    UniqueFd log(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (null.Valid()) {
        dup2(null.Get(), STDIN_FILENO);
        dup2(null.Get(), STDOUT_FILENO);
    }
    const int errorTarget = log.Valid() ? log.Get() : null.Get();
    if (errorTarget >= 0) dup2(errorTarget, STDERR_FILENO);
    if (chdir("/") != 0) {
        // Only keeps the daemon from holding its start folder busy.
    }
    return log.Valid() ? path : "/dev/null (cannot open " + path + ")";
}

int WaitForChild(pid_t child, UniqueFd ready, bool announce) {
    const std::string message = ReadAll(ready.Get());
    if (message.compare(0, sizeof(kReady) - 1, kReady) == 0) {
        if (announce) {
            fprintf(stderr, "skarvo: mounted in the background (pid %d); log: %s\n",
                    static_cast<int>(child), message.c_str() + sizeof(kReady) - 1);
        }
        return 0;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
    fprintf(stderr, "skarvo: the background mount ended before the volume was mounted\n");
    return 1;
}

}  // namespace

int RunInBackground(const std::string& logFile, bool announce,
                    const std::function<int(const MountedHook&)>& mount) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fprintf(stderr, "skarvo: cannot go to the background: %s\n", strerror(errno));
        return 1;
    }
    UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        fprintf(stderr, "skarvo: cannot go to the background: %s\n", strerror(errno));
        return 1;
    }
    if (child > 0) {
        writeEnd.Reset();
        return WaitForChild(child, std::move(readEnd), announce);
    }
    readEnd.Reset();
    setsid();  // no hangup or Ctrl-C from the terminal it was started from
    const int result = mount([&](const std::string& cacheFolder) {
        const std::string log = Detach(logFile, cacheFolder);
        const std::string ready = kReady + log;
        WriteAll(writeEnd.Get(), ready.data(), ready.size());
        writeEnd.Reset();
    });
    exit(result);
}
