// Text helpers of foundation/: only the cases where a fault would hide, such
// as the wildcard forms of the name filter, malformed UTF-8 and lost posts.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>
#include <vector>

#include "foundation/semaphore.h"
#include "foundation/string_utils.h"

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

}  // namespace
