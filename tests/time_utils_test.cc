// Times of foundation/ under a zone east of UTC, where writing local time as
// UTC, or the reverse, shows.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "foundation/time_utils.h"

namespace {

constexpr long kJan5th2024 = 1704438489;  // 2024-01-05T07:08:09Z
constexpr long kSeoulOffset = 9 * 3600;

class TimeZoneTest : public ::testing::Test {
  protected:
    void TearDown() override { UseZone(saved_.empty() ? "UTC" : saved_.c_str()); }
    static void UseZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    const std::string saved_ = getenv("TZ") ? getenv("TZ") : "";
};

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
        EXPECT_EQ(NoAdjustOffsetForServerTime(kJan5th2024), "2024-01-05T07:08:09.000Z") << zone;
    }
}

TEST_F(TimeZoneTest, ParsingAndServerAdjustmentsReadTheFieldsAsLocalOrUtc) {
    UseZone("Asia/Seoul");
    EXPECT_EQ(RFC3339ToTM("1970-01-01T00:00:00Z"), -kSeoulOffset);  // the Z is ignored
    EXPECT_EQ(RFC3339ToLocalTM("2024-01-05T07:08:09Z"), kJan5th2024);
    // What follows the seconds is ignored; out-of-range fields are normalised;
    // missing fields are 0 (month 0 is the December before).
    const long plain = RFC3339ToTM("2024-01-05T07:08:09Z");
    EXPECT_EQ(plain, kJan5th2024 - kSeoulOffset);
    EXPECT_EQ(RFC3339ToTM("2024-01-05T07:08:09.123+05:00"), plain);
    EXPECT_EQ(RFC3339ToTM("2024-02-30T10:00:00Z"), RFC3339ToTM("2024-03-01T10:00:00Z"));
    EXPECT_EQ(RFC3339ToTM("2024"), RFC3339ToTM("2023-11-30T00:00:00"));

    // Deliberately asymmetric: out goes the local wall-clock time with a Z;
    // in, the text is read as local time and the offset taken off again.
    EXPECT_EQ(AdjustOffsetForServerTime(kJan5th2024), "2024-01-05T16:08:09.000Z");
    EXPECT_EQ(AdjustServerTimeOffset("2020-01-01T00:00:00Z"), "2019-12-31T06:00:00.000Z");
    EXPECT_EQ(NoAdjustServerTimeOffset("2020-01-01T00:00:00+09:00"), "2020-01-01T00:00:00+09:00");
    EXPECT_EQ(AdjustServerTimeOffset(AdjustOffsetForServerTime(kJan5th2024).c_str()),
              "2024-01-04T22:08:09.000Z");
    UseZone("UTC");
    EXPECT_EQ(AdjustOffsetForServerTime(kJan5th2024), "2024-01-05T07:08:09.000Z");
    EXPECT_EQ(AdjustServerTimeOffset("2024-02-30T10:00:00.5Z"), "2024-03-01T10:00:00.000Z");
}

}  // namespace
