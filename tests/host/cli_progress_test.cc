// What skarvo shows of sizes and uploads: first the progress line and when
// it is drawn or logged, then sizes on the command line and in messages.
#include <gtest/gtest.h>

#include "cli/progress.h"
#include "cli/sizes.h"

namespace {

// The upload progress display: the line, and when it is drawn or logged.

using std::chrono::seconds;
using Clock = ProgressView::Clock;

TEST(CliProgressTest, TerminalShowsOnlyLongUploadsAndEndsTheirLine) {
    ProgressView view(true);
    const Clock::time_point t0 = Clock::now();
    EXPECT_TRUE(view.Update("quick", 0, 10, 1, t0, 80).terminal.empty());
    EXPECT_TRUE(view.Update("quick", 10, 10, 1, t0 + seconds(1), 80).terminal.empty());

    EXPECT_TRUE(view.Update("slow", 0, 100, 1, t0, 80).terminal.empty());
    const ProgressView::Output drawn = view.Update("slow", 50, 100, 1, t0 + seconds(3), 80);
    EXPECT_EQ(drawn.terminal.front(), '\r');
    EXPECT_NE(drawn.terminal.find(" 50%"), std::string::npos);
    EXPECT_EQ(drawn.terminal.find('\n'), std::string::npos);
    EXPECT_TRUE(drawn.log.empty());
    EXPECT_EQ(view.Break(), "\n");  // other text goes on a line of its own
    EXPECT_EQ(view.Break(), "");

    const ProgressView::Output done = view.Update("slow", 100, 100, 1, t0 + seconds(4), 80);
    EXPECT_NE(done.terminal.find("100%"), std::string::npos);
    EXPECT_EQ(done.terminal.back(), '\n');

    // A failed upload ends its line; a retry starts a fresh two seconds.
    view.Update("again", 0, 100, 1, t0, 80);
    view.Update("again", 10, 100, 1, t0 + seconds(3), 80);
    EXPECT_EQ(view.Abandon("again").terminal, "\n");
    EXPECT_TRUE(view.Update("again", 0, 100, 1, t0 + seconds(4), 80).terminal.empty());
}

TEST(CliProgressTest, ElsewhereLogsNowAndThen) {
    ProgressView view(false);
    const Clock::time_point t0 = Clock::now();
    EXPECT_TRUE(view.Update("f", 0, 1 << 20, 0, t0, 80).log.empty());
    const ProgressView::Output first =
        view.Update("f", 1 << 19, 1 << 20, 1024, t0 + seconds(2), 80);
    EXPECT_TRUE(first.terminal.empty());
    EXPECT_EQ(first.log, "uploading f: 50% of 1.0 MiB at 1.0 KiB/s");
    EXPECT_TRUE(view.Update("f", 600000, 1 << 20, 1, t0 + seconds(5), 80).log.empty());
    EXPECT_FALSE(view.Update("f", 700000, 1 << 20, 1, t0 + seconds(12), 80).log.empty());
    EXPECT_EQ(view.Update("f", 1 << 20, 1 << 20, 1, t0 + seconds(13), 80).log,
              "uploaded f (1.0 MiB)");
    EXPECT_TRUE(view.Update("short", 5, 5, 1, t0, 80).log.empty());
}

// Sizes on the command line and in messages.

TEST(CliSizesTest, ParsesSuffixesInAnyCase) {
    const std::pair<const char*, uint64_t> good[] = {
        {"4096", 4096},       {"100k", 100ull << 10}, {"512M", 512ull << 20},
        {"10G", 10ull << 30}, {"10gib", 10ull << 30}, {"2TB", 2ull << 40},
        {"1.5G", 3ull << 29}, {"0.5k", 512},
    };
    for (const auto& [text, expected] : good) {
        uint64_t bytes = 0;
        Status status = ParseSize(text, &bytes);
        EXPECT_TRUE(status.ok()) << text << ": " << status.message();
        EXPECT_EQ(bytes, expected) << text;
    }
    for (const char* text : {"", "G", "-1G", "10X", "10GG", "1.5.5G", "10 G", "16383P",
                             "99999999999999999999", "20000000T"}) {
        uint64_t bytes = 7;
        Status status = ParseSize(text, &bytes);
        EXPECT_FALSE(status.ok()) << text;
        EXPECT_EQ(bytes, 7u) << text;
        EXPECT_FALSE(status.message().empty()) << text;
    }
}

TEST(CliSizesTest, FormatsBinaryUnits) {
    EXPECT_EQ(FormatBytes(1023), "1023 B");
    EXPECT_EQ(FormatBytes((1ull << 20) - 10), "1.0 MiB");  // rounds up into the next unit
    EXPECT_EQ(FormatBytes(3ull << 40), "3.0 TiB");
}

}  // namespace
