#include "foundation/time_utils.h"

#include <sys/time.h>

#include <charconv>
#include <cstring>

#include "foundation/string_utils.h"

namespace {

// The broken-down UTC time of the instant t.
struct tm UtcFields(time_t t) {
    struct tm fields = {};
    gmtime_r(&t, &fields);
    return fields;
}

std::string UtcText(time_t t) {
    const struct tm fields = UtcFields(t);
    return TMToRFC3339(&fields);
}

// The local zone's offset from UTC at the instant t: t minus the instant that
// t's UTC fields name when read as local time.
double ZoneOffsetAt(time_t t) {
    struct tm fields = UtcFields(t);
    return difftime(t, mktime(&fields));
}

// The fields of an RFC 3339 text; anything after the seconds is ignored and
// fields that do not parse stay 0. Daylight saving is taken as not in force.
struct tm ParseFields(const char* s) {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (s != nullptr) {
        // Every getattr reads three of these texts. from_chars, field by
        // field: sscanf took an eighth of the daemon's CPU in a repeated
        // `ls -lR`.
        const char* const end = s + strlen(s);
        int* const values[] = {&year, &month, &day, &hour, &minute, &second};
        const char separators[] = "--T::";
        const char* at = s;
        for (size_t field = 0; field < 6; ++field) {
            const auto [next, error] = std::from_chars(at, end, *values[field]);
            if (error != std::errc() || field == 5 || next == end || *next != separators[field])
                break;
            at = next + 1;
        }
    }
    struct tm fields = {};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = 0;
    return fields;
}

// Reads `fields` as local time (normalising them in place) and returns that
// instant together with the zone offset in force at it.
time_t LocalInstant(struct tm* fields, double* offset) {
    const time_t t = mktime(fields);
    struct tm probe = *fields;
    probe.tm_isdst = -1;
    *offset = ZoneOffsetAt(mktime(&probe));
    return t;
}

}  // namespace

std::string TMToRFC3339(const struct tm* tm) {
    return string_format("%04d-%02d-%02dT%02d:%02d:%02d.000Z", tm->tm_year + 1900, tm->tm_mon + 1,
                         tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec);
}

std::string TimeToRFC3339(long t) {
    const time_t instant = static_cast<time_t>(t);
    struct tm local = {};
    localtime_r(&instant, &local);
    return UtcText(mktime(&local));
}

std::string TimeToUTCRFC3339(long t) {
    return TimeToRFC3339(t);
}

std::string NoAdjustOffsetForServerTime(long t) {
    return TimeToRFC3339(t);
}

std::string AdjustOffsetForServerTime(long t) {
    // A fixed reference date keeps the result independent of daylight saving
    // at t itself.
    struct tm reference = {};
    reference.tm_year = 115;
    reference.tm_mon = 9;
    reference.tm_mday = 3;
    reference.tm_isdst = -1;
    const double offset = ZoneOffsetAt(mktime(&reference));
    return UtcText(static_cast<time_t>(t + static_cast<long>(offset)));
}

std::string NoAdjustServerTimeOffset(const char* s) {
    return std::string(s != nullptr ? s : "");
}

std::string AdjustServerTimeOffset(const char* s) {
    struct tm fields = ParseFields(s);
    double offset = 0;
    const time_t t = LocalInstant(&fields, &offset);
    return UtcText(t - static_cast<time_t>(offset));
}

long RFC3339ToTM(const char* s) {
    struct tm fields = ParseFields(s);
    return static_cast<long>(mktime(&fields));
}

long RFC3339ToLocalTM(const char* s) {
    struct tm fields = ParseFields(s);
    double offset = 0;
    const time_t t = LocalInstant(&fields, &offset);
    return static_cast<long>(t + static_cast<time_t>(offset));
}

std::string TMToUTCRFC3339(struct tm* tm) {
    return UtcText(mktime(tm));
}

std::string GetSystemTimeRfc3339() {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    const struct tm fields = UtcFields(now.tv_sec);
    return string_format("%04d-%02d-%02dT%02d:%02d:%02d.%03d", fields.tm_year + 1900,
                         fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min,
                         fields.tm_sec, static_cast<int>(now.tv_usec / 1000));
}
