// The host's logger, as the library calls it.
#ifndef LIBFILESYSTEM_LOG_H_
#define LIBFILESYSTEM_LOG_H_

#include <cstdarg>

// Severity of a log line. The values are bits so that a host can filter on a
// set of levels; the library writes each line with exactly one of them.
enum LOGLEVEL : int {
    LL_DEBUG = 1,      // handle lookups and per-call traces
    LL_INFO = 2,       // life-cycle events: initialise, mount, unmount
    LL_WARNING = 4,    // recoverable oddities
    LL_ERROR = 8,      // failed operations
    LL_CRITICAL = 16,  // exceptions caught at the FUSE boundary
};

// A sink for log lines, implemented by the host and bound with FS_BindLogger.
// The library never takes ownership: the host unbinds it before destroying it.
//
// Virtual operations, in slot order:
//   0  IsEnabled(level) -> bool
//        Whether a line of `level` would be written. The library does not call
//        it; a host uses it to skip building expensive messages.
//   1  Log(level, format, ...)
//        Formats and writes one line; a convenience for host code that
//        forwards to LogV. The library does not call it.
//   2  LogV(level, format, args)
//        Formats `format` with `args` (printf conventions) and writes the
//        line. This is the one operation the library calls, from any thread,
//        so it must be thread safe. The message carries no line end; time
//        stamps and level words are the host's to add.
//   3, 4  destructors.
class ILog {
  public:
    virtual bool IsEnabled(LOGLEVEL level) = 0;
    virtual void Log(LOGLEVEL level, const char* format, ...)
        __attribute__((format(printf, 3, 4))) {
        va_list args;
        va_start(args, format);
        LogV(level, format, args);
        va_end(args);
    }
    virtual void LogV(LOGLEVEL level, const char* format, va_list args) = 0;
    virtual ~ILog() = default;
};

#endif  // LIBFILESYSTEM_LOG_H_
