#include "services/logger.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "libfilesystem/unique_fd.h"

namespace {

struct LevelWord {
    LOGLEVEL level;
    const char* word;
};

constexpr LevelWord kLevelWords[] = {
    {LL_DEBUG, "debug"}, {LL_INFO, "info"},         {LL_WARNING, "warning"},
    {LL_ERROR, "error"}, {LL_CRITICAL, "critical"},
};

// "2024-05-01 12:34:56.789 " in local time; returns the characters written.
size_t FormatTimeStamp(char* out, size_t capacity) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm local {};
    localtime_r(&now.tv_sec, &local);
    size_t used = strftime(out, capacity, "%Y-%m-%d %H:%M:%S", &local);
    const int more =
        snprintf(out + used, capacity - used, ".%03ld ", static_cast<long>(now.tv_usec / 1000));
    if (more > 0) used += static_cast<size_t>(more);
    return used < capacity ? used : capacity - 1;
}

}  // namespace

bool ParseLogLevel(const std::string& text, LOGLEVEL* level) {
    for (const LevelWord& entry : kLevelWords) {
        if (strcasecmp(text.c_str(), entry.word) == 0) {
            if (level != nullptr) *level = entry.level;
            return true;
        }
    }
    return false;
}

const char* LogLevelName(LOGLEVEL level) {
    for (const LevelWord& entry : kLevelWords) {
        if (entry.level == level) return entry.word;
    }
    return "unknown";
}

Logger::Logger(LOGLEVEL minimum) : Logger(STDERR_FILENO, false, minimum) {}

Logger::Logger(int fd, bool ownsFd, LOGLEVEL minimum)
    : minimum_(minimum), fd_(fd), ownsFd_(ownsFd) {}

Status Logger::OpenFile(const std::string& path, LOGLEVEL minimum,
                        std::unique_ptr<Logger>* logger) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return Status::Error("cannot open log file " + path + ": " + strerror(errno));
    logger->reset(new Logger(fd, true, minimum));
    return Status::Ok();
}

Logger::~Logger() {
    if (ownsFd_) close(fd_);
}

void Logger::SetLevel(LOGLEVEL minimum) {
    minimum_.store(minimum);
}

LOGLEVEL Logger::Level() const {
    return static_cast<LOGLEVEL>(minimum_.load());
}

bool Logger::IsEnabled(LOGLEVEL level) {
    return level >= minimum_.load();
}

void Logger::LogV(LOGLEVEL level, const char* format, va_list args) {
    // The filter comes first: a dropped line costs no formatting at all.
    if (!IsEnabled(level) || format == nullptr) return;

    char stack[1024];
    size_t used = FormatTimeStamp(stack, sizeof(stack));
    used += static_cast<size_t>(
        snprintf(stack + used, sizeof(stack) - used, "%-8s ", LogLevelName(level)));
    const size_t prefix = used;

    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(stack + prefix, sizeof(stack) - prefix, format, copy);
    va_end(copy);
    if (length < 0) return;

    // A message longer than the stack buffer is formatted again into the heap.
    std::vector<char> heap;
    char* line = stack;
    if (prefix + static_cast<size_t>(length) + 1 >= sizeof(stack)) {
        heap.resize(prefix + static_cast<size_t>(length) + 2);
        memcpy(heap.data(), stack, prefix);
        vsnprintf(heap.data() + prefix, heap.size() - prefix, format, args);
        line = heap.data();
    }
    size_t end = prefix + static_cast<size_t>(length);
    // The caller's message carries no line end; drop any it brought anyway so
    // that one call is always one line.
    while (end > prefix && line[end - 1] == '\n')
        --end;
    line[end++] = '\n';
    WriteLine(line, end);
}

void Logger::WriteLine(const char* data, size_t size) {
    std::lock_guard<std::mutex> lock(writeMutex_);
    WriteAll(fd_, data, size);  // nowhere left to report a failing log
}
