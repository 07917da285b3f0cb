// The logger: level words, the level filter, the line format and whole lines
// under concurrent writers.
#include "services/logger.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

// Splits "YYYY-MM-DD HH:MM:SS.mmm <level> <message>" into the level word and
// the message; false when the line has another shape.
bool SplitLine(const std::string& line, std::string* level, std::string* message) {
    const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
    if (line.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) return false;
    }
    const size_t wordEnd = line.find(' ', shape.size());
    if (wordEnd == std::string::npos) return false;
    *level = line.substr(shape.size(), wordEnd - shape.size());
    const size_t text = line.find_first_not_of(' ', wordEnd);
    *message = text == std::string::npos ? "" : line.substr(text);
    return true;
}

class LoggerFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/logger_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/skarvo.log";
    }
    void TearDown() override {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    std::vector<std::string> Lines() const {
        std::ifstream in(path_);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }

    std::unique_ptr<Logger> Open(LOGLEVEL level) {
        std::string error;
        auto logger = Logger::OpenFile(path_, level, &error);
        EXPECT_NE(logger, nullptr) << error;
        return logger;
    }

    std::string dir_;
    std::string path_;
};

TEST(LogLevelTest, ParsesTheFiveLevelWordsAndRejectsOthers) {
    const std::pair<const char*, LOGLEVEL> words[] = {{"debug", LL_DEBUG},
                                                      {"info", LL_INFO},
                                                      {"warning", LL_WARNING},
                                                      {"error", LL_ERROR},
                                                      {"critical", LL_CRITICAL}};
    for (const auto& [word, level] : words) {
        LOGLEVEL parsed = LL_CRITICAL;
        EXPECT_TRUE(ParseLogLevel(word, &parsed)) << word;
        EXPECT_EQ(parsed, level) << word;
        EXPECT_STREQ(LogLevelName(level), word);
    }
    LOGLEVEL parsed = LL_WARNING;
    EXPECT_TRUE(ParseLogLevel("ERROR", &parsed));
    EXPECT_EQ(parsed, LL_ERROR);
    for (const char* bad : {"", "warn", "errors", "debug ", "5"}) {
        parsed = LL_WARNING;
        EXPECT_FALSE(ParseLogLevel(bad, &parsed)) << bad;
        EXPECT_EQ(parsed, LL_WARNING) << "a rejected word leaves the level alone";
    }
}

TEST_F(LoggerFileTest, WritesTimeStampLevelWordAndMessageAsOneLine) {
    { std::ofstream(path_) << "earlier line\n"; }  // appended to
    auto logger = Open(LL_DEBUG);
    logger->Log(LL_WARNING, "[FILESYSTEM] %s already mounted", "/mnt/x");
    const std::string longText(10000, 'x');  // kept whole
    logger->Log(LL_CRITICAL, "caught %d <%s>", 42, longText.c_str());
    logger->Log(LL_INFO, "ends with a line end\n");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "earlier line");
    std::string level;
    std::string message;
    ASSERT_TRUE(SplitLine(lines[1], &level, &message)) << lines[1];
    EXPECT_EQ(level, "warning");
    EXPECT_EQ(message, "[FILESYSTEM] /mnt/x already mounted");
    ASSERT_TRUE(SplitLine(lines[2], &level, &message)) << lines[2];
    EXPECT_EQ(level, "critical");
    EXPECT_EQ(message, "caught 42 <" + longText + ">");
    ASSERT_TRUE(SplitLine(lines[3], &level, &message)) << lines[3];
    EXPECT_EQ(message, "ends with a line end");
}

TEST_F(LoggerFileTest, DropsLinesBelowTheLevel) {
    auto logger = Open(LL_WARNING);
    EXPECT_FALSE(logger->IsEnabled(LL_DEBUG));
    EXPECT_FALSE(logger->IsEnabled(LL_INFO));
    EXPECT_TRUE(logger->IsEnabled(LL_WARNING));
    EXPECT_TRUE(logger->IsEnabled(LL_CRITICAL));
    logger->Log(LL_DEBUG, "debug line");
    logger->Log(LL_INFO, "info line");
    logger->Log(LL_ERROR, "error line");
    logger->SetLevel(LL_DEBUG);
    logger->Log(LL_DEBUG, "debug after lowering");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("error line"), std::string::npos);
    EXPECT_NE(lines[1].find("debug after lowering"), std::string::npos);
}

TEST(LoggerDeathTest, NeverFormatsADroppedLine) {
    // Formatting this argument would crash: the filter must come first.
    EXPECT_EXIT(
        {
            Logger logger(LL_ERROR);
            logger.Log(LL_DEBUG, "%s", reinterpret_cast<const char*>(16));
            logger.Log(LL_WARNING, "%s", reinterpret_cast<const char*>(16));
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggerFileTest, ConcurrentWritersNeverInterleaveLines) {
    auto logger = Open(LL_DEBUG);
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string payload(3000, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                logger->Log(LL_INFO, "%d %s", t, payload.c_str());
        });
    }
    for (auto& thread : threads)
        thread.join();
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& line : lines) {
        // "<stamp> info     <t> <3000 times the letter of t>"
        ASSERT_GT(line.size(), 3002u);
        const std::string tail = line.substr(line.size() - 3002);
        const int t = tail[0] - '0';
        ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
        EXPECT_EQ(tail.substr(1), " " + std::string(3000, static_cast<char>('a' + t)));
        EXPECT_NE(line.find(" info "), std::string::npos);
    }
}

TEST(LoggerOpenTest, ReportsAFileThatCannotBeOpened) {
    std::string error;
    EXPECT_EQ(Logger::OpenFile("/nonexistent-dir/skarvo.log", LL_INFO, &error), nullptr);
    EXPECT_NE(error.find("/nonexistent-dir/skarvo.log"), std::string::npos);
}

}  // namespace
