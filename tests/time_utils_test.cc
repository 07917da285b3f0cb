#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>

#include "foundation/time_utils.h"

namespace {

// Each test picks its zone with UseZone(); the process's zone is restored
// afterwards.
class TimeZoneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* zone = getenv("TZ");
        hadZone_ = zone != nullptr;
        savedZone_ = hadZone_ ? zone : "";
    }
    void TearDown() override {
        hadZone_ ? setenv("TZ", savedZone_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    static void UseZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

  private:
    bool hadZone_ = false;
    std::string savedZone_;
};

constexpr long kJan5th2024 = 1704438489;  // 2024-01-05T07:08:09Z
constexpr long kSeoulOffset = 9 * 3600;

TEST_F(TimeZoneTest, InstantsAreWrittenInUtcUnderAnyZone) {
    for (const char* zone : {"UTC", "Asia/Seoul"}) {
        UseZone(zone);
        struct tm fields = {};
        fields.tm_year = 124;
        fields.tm_mday = 5;
        fields.tm_hour = 7;
        fields.tm_min = 8;
        fields.tm_sec = 9;
        EXPECT_EQ(TMToRFC3339(&fields), "2024-01-05T07:08:09.000Z") << zone;
        EXPECT_EQ(TimeToRFC3339(kJan5th2024), "2024-01-05T07:08:09.000Z") << zone;
        EXPECT_EQ(TimeToUTCRFC3339(0), "1970-01-01T00:00:00.000Z") << zone;
        EXPECT_EQ(NoAdjustOffsetForServerTime(kJan5th2024), "2024-01-05T07:08:09.000Z") << zone;
    }
}

TEST_F(TimeZoneTest, ParsingReadsTheFieldsAsLocalOrAsUtc) {
    UseZone("UTC");
    EXPECT_EQ(RFC3339ToTM("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(RFC3339ToLocalTM("1970-01-01T00:00:00Z"), 0);

    UseZone("Asia/Seoul");
    EXPECT_EQ(RFC3339ToTM("1970-01-01T00:00:00Z"), -kSeoulOffset);  // the Z is ignored
    EXPECT_EQ(RFC3339ToTM("2024-01-05T07:08:09Z"), kJan5th2024 - kSeoulOffset);
    EXPECT_EQ(RFC3339ToLocalTM("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(RFC3339ToLocalTM("2024-01-05T07:08:09Z"), kJan5th2024);

    // What follows the seconds is ignored; out-of-range fields are normalised;
    // missing fields are 0 (month 0 is the December before, day 0 the last
    // day of the month before that).
    const long plain = RFC3339ToTM("2024-01-05T07:08:09Z");
    EXPECT_EQ(RFC3339ToTM("2024-01-05T07:08:09.123Z"), plain);
    EXPECT_EQ(RFC3339ToTM("2024-01-05T07:08:09+05:00"), plain);
    EXPECT_EQ(RFC3339ToTM("2024-02-30T10:00:00Z"), RFC3339ToTM("2024-03-01T10:00:00Z"));
    EXPECT_EQ(RFC3339ToTM("2024"), RFC3339ToTM("2023-11-30T00:00:00"));
}

TEST_F(TimeZoneTest, TMToUTCRFC3339NormalisesTheCallersFields) {
    UseZone("Asia/Seoul");
    struct tm fields = {};
    fields.tm_year = 124;
    fields.tm_mon = 1;
    fields.tm_mday = 30;
    fields.tm_hour = 10;
    fields.tm_isdst = -1;
    EXPECT_EQ(TMToUTCRFC3339(&fields), "2024-03-01T01:00:00.000Z");
    EXPECT_EQ(fields.tm_mon, 2);
    EXPECT_EQ(fields.tm_mday, 1);
}

TEST_F(TimeZoneTest, ServerTimeAdjustmentsAreDeliberatelyAsymmetric) {
    UseZone("UTC");
    EXPECT_EQ(AdjustOffsetForServerTime(kJan5th2024), "2024-01-05T07:08:09.000Z");
    EXPECT_EQ(AdjustServerTimeOffset("2024-02-30T10:00:00.5Z"), "2024-03-01T10:00:00.000Z");

    UseZone("Asia/Seoul");
    // The local wall-clock time, written with a Z.
    EXPECT_EQ(AdjustOffsetForServerTime(kJan5th2024), "2024-01-05T16:08:09.000Z");
    // Read as local time, then the offset is taken off a second time.
    EXPECT_EQ(AdjustServerTimeOffset("2020-01-01T00:00:00Z"), "2019-12-31T06:00:00.000Z");
    EXPECT_EQ(AdjustServerTimeOffset(AdjustOffsetForServerTime(kJan5th2024).c_str()),
              "2024-01-04T22:08:09.000Z");
    EXPECT_EQ(NoAdjustServerTimeOffset("2020-01-01T00:00:00+09:00"), "2020-01-01T00:00:00+09:00");
}

TEST_F(TimeZoneTest, SystemTimeIsUtcWithMillisecondsAndNoZoneLetter) {
    UseZone("Asia/Seoul");
    const time_t before = time(nullptr);
    const std::string now = GetSystemTimeRfc3339();
    const time_t after = time(nullptr);

    const std::string shape = "dddd-dd-ddTdd:dd:dd.ddd";  // 'd' stands for a digit
    ASSERT_EQ(now.size(), shape.size()) << now;
    for (size_t i = 0; i < shape.size(); ++i) {
        EXPECT_TRUE(shape[i] == 'd' ? isdigit(static_cast<unsigned char>(now[i])) != 0
                                    : now[i] == shape[i])
            << now;
    }
    // The hour is gmtime's, taken just before or just after the call.
    char first[16];
    char last[16];
    struct tm fields = {};
    strftime(first, sizeof(first), "%Y-%m-%dT%H", gmtime_r(&before, &fields));
    strftime(last, sizeof(last), "%Y-%m-%dT%H", gmtime_r(&after, &fields));
    EXPECT_TRUE(now.compare(0, 13, first) == 0 || now.compare(0, 13, last) == 0) << now;
}

}  // namespace
