#include "services/log_levels.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Everything here stays in the log at debug level (or info for what skarvo
// reports itself in clearer words), so --log-level debug shows it all.
constexpr RoutineMessage kRoutine[] = {
    // A lookup of a name that does not exist: every `mkdir -p`, `cp` and
    // editor asks for names before it creates them.
    {"[FILESYSTEM] [%s:%s] %s => %s : %s", "] GetAttr => FILE_NOT_FOUND : ", LL_DEBUG},
    // The line the library writes for every unlink.
    {"FUSE_unlink: ", nullptr, LL_DEBUG},
    // Per-request and per-upload steps.
    {"[FILESYSTEM] [%s:%s] Create file : ", nullptr, LL_DEBUG},
    {"[FILESYSTEM] Upload - ", nullptr, LL_DEBUG},
    {"[FILESYSTEM] AsyncJobUpload - ", nullptr, LL_DEBUG},
    {"[FILESYSTEM] Delete file(Delete on close) - ", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Upload - ", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Upload new file.", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Upload overwrite mode for ", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] If file does not fully written", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Transfer success.", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Change file time", nullptr, LL_DEBUG},
    {"[ASYNCJOB  ] Close and flush writable cache.", nullptr, LL_DEBUG},
    // skarvo's upload events say what failed and where the data went.
    {"[ASYNCJOB  ] Upload failed. Protocol returns ", nullptr, LL_INFO},
    {"[ASYNCJOB  ] Error occured while uploading file.", nullptr, LL_INFO},
    {"[ASYNCJOB  ] User c", nullptr, LL_INFO},  // "User canceled", "User choose save"
    {"[ASYNCJOB  ] User retried upload.", nullptr, LL_INFO},
};

bool StartsWith(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

const RoutineMessage* FindRow(const char* format) {
    for (const RoutineMessage& row : kRoutine) {
        if (StartsWith(format, row.formatPrefix)) return &row;
    }
    return nullptr;
}

// The level skarvo logs a library line at: the table's level for a routine
// message, else `level` unchanged. `line` is the formatted text.
LOGLEVEL LevelForLibraryLine(LOGLEVEL level, const char* format, const char* line) {
    for (const RoutineMessage& row : kRoutine) {
        if (!StartsWith(format, row.formatPrefix)) continue;
        if (row.contains == nullptr || strstr(line, row.contains) != nullptr) return row.level;
    }
    return level;
}

}  // namespace

void LibraryLog::LogV(LOGLEVEL level, const char* format, va_list args) {
    if (format == nullptr || !target_->IsEnabled(level)) return;
    const RoutineMessage* row = FindRow(format);
    if (row == nullptr) {
        target_->LogV(level, format, args);
        return;
    }
    if (row->contains == nullptr) {
        if (target_->IsEnabled(row->level)) target_->LogV(row->level, format, args);
        return;
    }
    va_list copy;
    va_copy(copy, args);
    const int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length < 0) return;
    std::vector<char> line(static_cast<size_t>(length) + 1);
    vsnprintf(line.data(), line.size(), format, args);
    const LOGLEVEL decided = LevelForLibraryLine(level, format, line.data());
    if (target_->IsEnabled(decided)) target_->Log(decided, "%s", line.data());
}
