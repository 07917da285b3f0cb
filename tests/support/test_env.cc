#include "support/test_env.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

void RecordingLog::LogV(LOGLEVEL level, const char* format, va_list args) {
    char line[4096];
    vsnprintf(line, sizeof line, format, args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(level, line);
}

int RecordingLog::Count(const std::string& text, int level) {
    std::lock_guard<std::mutex> lock(mutex_);
    int count = 0;
    for (const auto& [lineLevel, line] : lines_) {
        if ((level == 0 || lineLevel == level) && line.find(text) != std::string::npos) ++count;
    }
    return count;
}

RecordingLog::Line RecordingLog::Last() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lines_.empty()) return Line();
    return Line{lines_.back().first, lines_.back().second};
}

void RecordingLog::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

TempDir::TempDir() {
    char pattern[] = "/tmp/libfs-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir() {
    if (path_ != "/tmp") RunProgram({"rm", "-rf", path_});
}

std::string KernelMountUnavailable() {
    if (geteuid() != 0) return "kernel mount tests need root";
    const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0) return "kernel mount tests need /dev/fuse";
    close(fd);
    return "";
}

int RunProgram(const std::vector<std::string>& argv, std::string* output) {
    // Built before fork: the child of a threaded process must not allocate.
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipeFds[0]);
        close(pipeFds[1]);
        return -1;
    }
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(pipeFds[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
        text.append(buffer, n);
    close(pipeFds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (output != nullptr) *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool IsMounted(const std::string& point, const std::string& type) {
    std::ifstream mounts("/proc/mounts");
    std::string device, mountPoint, fsType, rest;
    while (mounts >> device >> mountPoint >> fsType && std::getline(mounts, rest)) {
        if (mountPoint == point && fsType == type) return true;
    }
    return false;
}

namespace {

int CountEntries(const char* folder) {
    DIR* dir = opendir(folder);
    if (dir == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

}  // namespace

int CountThreads() {
    return CountEntries("/proc/self/task");
}
int CountOpenFds() {
    return CountEntries("/proc/self/fd") - 1;
}  // less the one counting

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool WriteFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    return static_cast<bool>(out);
}

std::string RandomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (auto& byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}
