#include "services/log.h"

#include <cstdarg>
#include <exception>
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

void LogCaughtException(const char* operation) {
    try {
        throw;
    } catch (const std::exception& e) {
        __LOG__A(CurrentLogger(), LL_CRITICAL, "[FILESYSTEM] %s exception : %s", operation,
                 e.what());
    } catch (...) {
        __LOG__A(CurrentLogger(), LL_CRITICAL, "[FILESYSTEM] %s exception", operation);
    }
}
