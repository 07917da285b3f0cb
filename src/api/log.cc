#include "api/log.h"

#include <cstdarg>
#include <mutex>

#include "libfilesystem/entry_points.h"

void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...) {
    if (log == nullptr) return;
    va_list args;
    va_start(args, format);
    log->LogV(level, format, args);
    va_end(args);
}

ILog* CurrentLogger() {
    std::lock_guard<std::mutex> lock(ll);
    return logger;
}
