// The library's one road to the host's logger.
#ifndef LIBFS_SERVICES_LOG_H_
#define LIBFS_SERVICES_LOG_H_

#include "libfilesystem/log.h"

// Formats and writes one line through `log` at `level`; does nothing when
// `log` is null. It does not lock: callers read the bound `logger` once and
// pass that pointer.
void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Reads the bound main logger under its lock.
ILog* CurrentLogger();

// Logs the exception being handled, at the highest level, as thrown by
// `operation`. Call it only inside a catch block.
void LogCaughtException(const char* operation);

#endif  // LIBFS_SERVICES_LOG_H_
