// How loud each of the library's messages is in skarvo's log. The library
// writes its texts at the levels it chooses; many of them are routine for a
// user (a lookup of a name that does not exist yet, one line per request or
// per upload step) and would fill a terminal at the default level. The table
// in log_levels.cc names those messages and the level skarvo gives them;
// every other message keeps the library's level.
#ifndef SKARVO_SERVICES_LOG_LEVELS_H_
#define SKARVO_SERVICES_LOG_LEVELS_H_

#include <cstdarg>

#include "libfilesystem/log.h"

// One row of the table: a library message, by the start of its format text
// and, when `contains` is set, a text its formatted line must hold.
struct RoutineMessage {
    const char* formatPrefix;
    const char* contains;  // null: every line of that format
    LOGLEVEL level;        // the level skarvo logs it at
};

// The logger bound to the library: applies the table, then hands each line
// to `target` (which filters by its own minimum level). Lines are formatted
// only when a table row needs the text and the line could still be written.
class LibraryLog : public ILog {
  public:
    explicit LibraryLog(ILog* target) : target_(target) {}

    bool IsEnabled(LOGLEVEL level) override { return target_->IsEnabled(level); }
    void LogV(LOGLEVEL level, const char* format, va_list args) override;

  private:
    ILog* const target_;
};

#endif  // SKARVO_SERVICES_LOG_LEVELS_H_
