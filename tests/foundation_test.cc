// Helpers of foundation/, only where a fault would hide: the wildcard forms
// of the name filter, malformed UTF-8, lost posts, times under a zone east of
// UTC (where writing local time as UTC, or the reverse, shows), and JSON
// documents and settings texts that hold only part of the values.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "foundation/config.h"
#include "foundation/json_object.h"
#include "foundation/semaphore.h"
#include "foundation/string_utils.h"
#include "foundation/time_utils.h"
#include "libfilesystem/aerror.h"

namespace {

TEST(WildcardTest, MatchesWholeNamesAndPathologicalPatternsFinish) {
    struct Case {
        const char* expression;
        const char* name;
        bool ignoreCase;
        bool matches;
    };
    const Case cases[] = {
        {"*", "", false, true},
        {"*.tmp", "file.tmp.bak", false, false},
        {"a*b", "abab", false, true},  // the star must not stop at the first 'b'
        {"a*b", "abac", false, false},
        {"?", "", false, false},
        {"", "a", false, false},
        {"ab", "abc", false, false},
        {"readme.TXT", "README.txt", false, false},
        {"readme.TXT", "README.txt", true, true},
        // '"': a dot or nothing. '<': any run that does not take in the last
        // dot. '>': one character, but the last dot is matched as nothing.
        {"abc\"", "abc", false, true},
        {"a\"b", "a..b", false, false},
        {"<.txt", "archive.tar.txt", false, true},
        {"<", "file.txt", false, false},
        {"a.<", "a.b", false, true},
        {"<\"txt", "file.txt", false, true},
        {">>>", "abc", false, true},
        {">", "ab", false, false},
        {"a>.b", "a.b", false, true},
        {"a>b.c", "a.b.c", false, true},
        {"a>", "a.", false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsNameInExpressionA(c.expression, c.name, c.ignoreCase), c.matches)
            << "'" << c.expression << "' on '" << c.name << "'";
    }
    // Plain backtracking needs exponential time on these.
    const std::string name(200, 'a');
    std::string stars, dosStars;
    for (int i = 0; i < 40; ++i) {
        stars += "*a";
        dosStars += "<a";
    }
    EXPECT_TRUE(IsNameInExpressionA(stars, name, false));
    EXPECT_FALSE(IsNameInExpressionA(stars + "b", name, false));
    EXPECT_FALSE(IsNameInExpressionA(dosStars + "b", name, false));
}

TEST(TextTest, EdgesOfFormatSplitReplaceStripAndUtf8) {
    const std::string longText(10000, 'x');  // longer than the first buffer
    EXPECT_EQ(string_format("[%s:%d]", longText.c_str(), 7), "[" + longText + ":7]");
    EXPECT_EQ(split("/a//b", "/"), (std::vector<std::string>{"", "a", "", "b"}));
    std::string text = "aXa";
    replace_all(text, "a", "aa");  // the inserted text is not scanned again
    replace_all(text, "", "x");
    EXPECT_EQ(text, "aaXaa");
    char out[32];
    strip("\tkey\t", out);  // only spaces go
    EXPECT_STREQ(out, "\tkey\t");
    char inPlace[] = "   ";
    strip(inPlace, inPlace);
    EXPECT_STREQ(inPlace, "");

    const std::string utf8 = "\xc3\xa9\xe2\x82\xac\xec\x95\x88 \xf0\x9f\x98\x80";
    EXPECT_EQ(s2ws(utf8), std::wstring(L"\u00e9\u20ac\uc548 \U0001F600"));
    EXPECT_EQ(ws2s(s2ws(utf8)), utf8);
    // A stray continuation byte, a truncated sequence (which must not swallow
    // the next character), an overlong '/' and an encoded surrogate.
    EXPECT_EQ(s2ws("a\x80z"), L"a\uFFFDz");
    EXPECT_EQ(s2ws("\xe2\x82z"), L"\uFFFDz");
    EXPECT_EQ(s2ws("\xc0\xaf"), L"\uFFFD\uFFFD");
    EXPECT_EQ(s2ws("\xed\xa0\x80"), L"\uFFFD\uFFFD\uFFFD");
    const std::wstring invalid = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000)};
    EXPECT_EQ(ws2s(invalid), "\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(SemaphoreTest, EveryPostReleasesExactlyOneWait) {
    Semaphore items(1);
    items.Wait();  // the initial unit is available without a post
    std::atomic<int> consumed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i, ++consumed)
                items.Wait();
        });
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
                items.Post();
        });
    }
    for (std::thread& thread : threads)  // the consumers finish only if no post is lost
        thread.join();
    EXPECT_EQ(consumed.load(), 8000);
    std::atomic<bool> posted{false};  // and a Wait() does not return before its Post()
    bool sawPost = false;
    std::thread waiter([&] {
        items.Wait();
        sawPost = posted.load();
    });
    posted = true;
    items.Post();
    waiter.join();
    EXPECT_TRUE(sawPost);
}

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

template <typename Action>
AERROR ThrownCode(Action action) {
    try {
        action();
    } catch (AERROR code) {
        return code;
    }
    return SUCCESS;
}

TEST(JsonObjectTest, ParsingPathsAndConversions) {
    EXPECT_EQ(ThrownCode([] { JsonObject object("{bad"); }), JSON_PARSE_FAILED);
    const char text[] = "{\"a\":1}garbage";  // the length form reads exactly that many bytes
    EXPECT_EQ(JsonObject(text, 7).ToText(), "{\"a\":1}");
    EXPECT_EQ(ThrownCode([&] { JsonObject cut(text, 4); }), JSON_PARSE_FAILED);

    JsonObject document(
        "{\"a\":{\"b\":1},\"list\":[1],\"big\":4294967296,\"nul\":\"ab\\u0000cd\"}");
    EXPECT_EQ(static_cast<int>(document.GetObject("/a//b/")), 1);
    EXPECT_EQ(ThrownCode([&] { document.GetObject("a/b/c"); }), ACCESS_VIOLATION);
    EXPECT_EQ(ThrownCode([&] { document.GetObject("list/0"); }), ACCESS_VIOLATION);
    EXPECT_FALSE(document.HasObject("a/x"));
    EXPECT_EQ(static_cast<long>(document["big"]), 4294967296L);
    EXPECT_EQ(static_cast<int>(document["big"]), 0);             // wraps instead of throwing
    EXPECT_EQ(static_cast<std::string>(document["nul"]), "ab");  // ends at the NUL
    EXPECT_THROW(static_cast<int>(document["nul"]), std::exception);
    // Lookups create nothing.
    EXPECT_EQ(document.ToText(),
              "{\"a\":{\"b\":1},\"big\":4294967296,\"list\":[1],\"nul\":\"ab\\u0000cd\"}");
}

TEST(ConfigTest, ParseUpdatesOnlyWhatTheTextHoldsAndBrokenTextChangesNothing) {
    Config config;
    config.AddConfiguration("fstimeout", "/fs/timeout", "20000");
    config.AddConfiguration("interval", "/fs/interval", "100");
    config.Parse("{\"fs\":{\"timeout\":\"45000\",\"interval\":250}}");
    config.Parse("{\"fs\":{\"interval\":\"5\"}}");
    config.Parse("");
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    EXPECT_EQ(config.GetValue("interval"), "5");
    EXPECT_EQ(ThrownCode([&] { config.Parse("{\"fs\":{\"timeout\":\"1\""); }), JSON_PARSE_FAILED);
    EXPECT_THROW(config.Parse("{\"fs\":{\"timeout\":\"1\",\"interval\":{}}}"), std::exception);
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    // An unknown key gets an empty entry whose empty path names the whole text.
    EXPECT_EQ(config.GetValue("unknown"), "");
    config.Parse("\"whole\"");
    EXPECT_EQ(config.GetValue("unknown"), "whole");
}

}  // namespace
