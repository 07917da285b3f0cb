#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "foundation/semaphore.h"
#include "foundation/string_utils.h"

namespace {

struct WildcardCase {
    const char* expression;
    const char* name;
    bool ignoreCase;
    bool matches;
};

TEST(WildcardTest, MatchesWholeNames) {
    const WildcardCase cases[] = {
        // '*' and '?'; both sides must be used up.
        {"*", "", false, true},
        {"a*", "a", false, true},
        {"*.tmp", "file.tmp", false, true},
        {"*.tmp", "file.tmp.bak", false, false},
        {"a*b", "abab", false, true},  // the star must not stop at the first 'b'
        {"a*b", "abac", false, false},
        {"?.?", "a.b", false, true},
        {"?", "", false, false},
        {"", "", false, true},
        {"", "a", false, false},
        {"abc", "ab", false, false},
        {"ab", "abc", false, false},
        // Case.
        {"readme.TXT", "README.txt", false, false},
        {"readme.TXT", "README.txt", true, true},
        {"a", "b", true, false},
        // '"': a dot or nothing.
        {"abc\"", "abc", false, true},
        {"abc\"", "abc.", false, true},
        {"a\"b", "ab", false, true},
        {"a\"b", "a..b", false, false},
        // '<': any run that does not take in the last dot.
        {"<.txt", "archive.tar.txt", false, true},  // earlier dots may be taken in
        {"<", "file.txt", false, false},
        {"<", "file", false, true},
        {"<c", "a.c", false, false},
        {"a.<", "a.b", false, true},  // past the last dot the rest has no dot
        {"<\"txt", "file.txt", false, true},
        // '>': one character, but the last dot is matched as nothing.
        {">>>", "abc", false, true},
        {">", "ab", false, false},
        {"a>.b", "a.b", false, true},
        {"a>b.c", "a.b.c", false, true},  // a dot that is not the last one is a character
        {"a>", "a.", false, false},
    };
    for (const WildcardCase& c : cases) {
        EXPECT_EQ(IsNameInExpressionA(c.expression, c.name, c.ignoreCase), c.matches)
            << "'" << c.expression << "' on '" << c.name << "'";
        // The wide matcher agrees on the same input.
        EXPECT_EQ(IsNameInExpression(s2ws(c.expression), s2ws(c.name), c.ignoreCase), c.matches)
            << "wide '" << c.expression << "' on '" << c.name << "'";
    }
    EXPECT_TRUE(IsNameInExpression(L"\uc548?.*", L"\uc548\ub155.txt", false));
}

TEST(WildcardTest, PathologicalPatternsFinish) {
    // Plain backtracking needs exponential time on these.
    const std::string name(200, 'a');
    std::string stars;
    std::string dosStars;
    for (int i = 0; i < 40; ++i) {
        stars += "*a";
        dosStars += "<a";
    }
    EXPECT_TRUE(IsNameInExpressionA(stars, name, false));
    EXPECT_FALSE(IsNameInExpressionA(stars + "b", name, false));
    EXPECT_FALSE(IsNameInExpressionA(dosStars + "b", name, false));
}

TEST(TextTest, FormatSplitReplaceEndsWith) {
    const std::string longText(10000, 'x');  // longer than the first buffer
    EXPECT_EQ(string_format("[%s:%d]", longText.c_str(), 7), "[" + longText + ":7]");

    EXPECT_EQ(split("a1b22c", "[0-9]+"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(split("/a//b", "/"), (std::vector<std::string>{"", "a", "", "b"}));
    EXPECT_EQ(split(L"x,y", L","), (std::vector<std::wstring>{L"x", L"y"}));

    std::string text = "aXa";
    replace_all(text, "a", "aa");  // the inserted text is not scanned again
    EXPECT_EQ(text, "aaXaa");
    replace_all(text, "", "x");
    EXPECT_EQ(text, "aaXaa");
    std::wstring wide = L"C:\\dir\\file";
    replace_all(wide, L"\\", L"/");
    EXPECT_EQ(wide, L"C:/dir/file");

    EXPECT_TRUE(ends_with("file.tmp", ".tmp"));
    EXPECT_TRUE(ends_with("abc", ""));
    EXPECT_FALSE(ends_with("a", "ab"));
}

TEST(TextTest, StripRemovesOnlySurroundingSpaces) {
    char out[32];
    strip("  a b  ", out);
    EXPECT_STREQ(out, "a b");
    strip("\tkey\t", out);
    EXPECT_STREQ(out, "\tkey\t");
    char inPlace[] = "   ";
    strip(inPlace, inPlace);
    EXPECT_STREQ(inPlace, "");
}

TEST(TextTest, Utf8RoundTripsAndSurvivesMalformedInput) {
    const std::string text = "\xc3\xa9\xe2\x82\xac\xec\x95\x88 \xf0\x9f\x98\x80";
    EXPECT_EQ(s2ws(text), std::wstring(L"\u00e9\u20ac\uc548 \U0001F600"));
    EXPECT_EQ(ws2s(s2ws(text)), text);

    // A stray continuation byte, a truncated sequence (which must not swallow
    // the next character), an overlong '/' and an encoded surrogate.
    EXPECT_EQ(s2ws("a\x80z"), L"a\uFFFDz");
    EXPECT_EQ(s2ws("\xe2\x82z"), L"\uFFFDz");
    EXPECT_EQ(s2ws("\xc0\xaf"), L"\uFFFD\uFFFD");
    EXPECT_EQ(s2ws("\xed\xa0\x80"), L"\uFFFD\uFFFD\uFFFD");
    const std::wstring invalid = {static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000)};
    EXPECT_EQ(ws2s(invalid), "\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(ProcessTest, CreateDirectoryRecursivelyAndPexec) {
    char pattern[] = "/tmp/libfs_string_utils_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string root = pattern;
    auto isDirectory = [](const std::string& path) {
        struct stat info;
        return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    };

    EXPECT_TRUE(CreateDirectoryRecursively(root + "/a/b\\c"));  // '\\' separates too
    EXPECT_TRUE(isDirectory(root + "/a/b"));
    EXPECT_TRUE(CreateDirectoryRecursively(root + "/a/b"));  // exists already

    FILE* file = fopen((root + "/file").c_str(), "w");
    ASSERT_NE(file, nullptr);
    fclose(file);
    errno = 0;
    EXPECT_FALSE(CreateDirectoryRecursively(root + "/file/below"));
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_FALSE(CreateDirectoryRecursively(""));  // ENOENT is reported as ENOTDIR
    EXPECT_EQ(errno, ENOTDIR);

    EXPECT_EQ(pexec("printf 'one\\ntwo'"), "one\ntwo");
    EXPECT_EQ(pexec("head -c 100000 /dev/zero | tr '\\0' x"), std::string(100000, 'x'));
    pexec("rm -rf '" + root + "'");
    EXPECT_FALSE(isDirectory(root));
}

TEST(SemaphoreTest, EveryPostReleasesExactlyOneWait) {
    constexpr int kThreads = 4;
    constexpr int kItemsPerThread = 2000;
    Semaphore items(1);
    items.Wait();  // the initial unit is available without a post

    std::atomic<int> consumed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kItemsPerThread; ++i) {
                items.Wait();
                ++consumed;
            }
        });
        threads.emplace_back([&] {
            for (int i = 0; i < kItemsPerThread; ++i) {
                items.Post();
            }
        });
    }
    // The consumers finish only if no post is lost.
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(consumed.load(), kThreads * kItemsPerThread);

    // A Wait() does not return before its Post().
    std::atomic<bool> posted{false};
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
