// Conversions between RFC 3339 text, time_t and struct tm.
//
// Text results have the form "YYYY-MM-DDThh:mm:ss.000Z" (milliseconds always
// 000, zone always Z), except GetSystemTimeRfc3339, which writes real
// milliseconds and no zone letter. Parsers read "Y-M-DTh:m:s" and ignore
// whatever follows the seconds (fraction, zone); fields that do not parse are
// 0. The parsed fields go through mktime, so out-of-range fields are
// normalised (February 30 becomes March 1).
//
// The "zone offset" is the local zone's distance from UTC in seconds,
// positive east of Greenwich.
#ifndef LIBFILESYSTEM_FOUNDATION_TIME_UTILS_H_
#define LIBFILESYSTEM_FOUNDATION_TIME_UTILS_H_

#include <ctime>
#include <string>

// The fields of `tm` as they stand (tm_year + 1900, tm_mon + 1).
std::string TMToRFC3339(const struct tm* tm);

// The UTC text of the instant t.
std::string TimeToRFC3339(long t);
std::string TimeToUTCRFC3339(long t);
std::string NoAdjustOffsetForServerTime(long t);

// The local wall-clock time of t written with a Z: the UTC text of t plus the
// zone offset in force on 2015-10-03 (a fixed reference date).
std::string AdjustOffsetForServerTime(long t);

// `s` unchanged.
std::string NoAdjustServerTimeOffset(const char* s);

// Reads the fields of `s` as local time and writes the UTC text of that
// instant minus the zone offset. This is deliberately not the inverse of
// AdjustOffsetForServerTime: under UTC+9, "2020-01-01T00:00:00Z" becomes
// "2019-12-31T06:00:00.000Z".
std::string AdjustServerTimeOffset(const char* s);

// The instant named by the fields of `s` read as local time.
long RFC3339ToTM(const char* s);
// The instant named by the fields of `s` read as UTC.
long RFC3339ToLocalTM(const char* s);

// Normalises `tm` in place (mktime) and writes the UTC text of the instant it
// names in local time.
std::string TMToUTCRFC3339(struct tm* tm);

// The current UTC time as "YYYY-MM-DDThh:mm:ss.mmm" (no zone letter).
std::string GetSystemTimeRfc3339();

#endif  // LIBFILESYSTEM_FOUNDATION_TIME_UTILS_H_
