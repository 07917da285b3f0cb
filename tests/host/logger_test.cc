// The logger: level words, the level filter (before formatting), the line
// format, and whole lines under concurrent writers.
#include "services/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <thread>
#include <vector>

namespace {

class LoggerTest : public ::testing::Test {
  protected:
    void TearDown() override { unlink(path_.c_str()); }
    std::vector<std::string> Lines() const {
        std::ifstream in(path_);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    std::unique_ptr<Logger> Open(LOGLEVEL level) {
        std::unique_ptr<Logger> logger;
        const Status opened = Logger::OpenFile(path_, level, &logger);
        EXPECT_TRUE(opened.ok()) << opened.message();
        return logger;
    }
    const std::string path_ = "/tmp/logger_test." + std::to_string(getpid()) + ".log";
};

TEST_F(LoggerTest, WritesWholeLinesAtOrAboveTheLevel) {
    { std::ofstream(path_) << "earlier line\n"; }  // appended to
    auto logger = Open(LL_WARNING);
    EXPECT_FALSE(logger->IsEnabled(LL_INFO));
    EXPECT_TRUE(logger->IsEnabled(LL_WARNING));
    logger->Log(LL_WARNING, "[FILESYSTEM] %s already mounted", "/mnt/x");
    logger->Log(LL_INFO, "info line");
    const std::string longText(10000, 'x');  // kept whole
    logger->Log(LL_CRITICAL, "caught %d <%s>", 42, longText.c_str());
    logger->SetLevel(LL_DEBUG);
    logger->Log(LL_DEBUG, "ends with a line end\n");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "earlier line");
    const std::string expected[] = {"warning [FILESYSTEM] /mnt/x already mounted",
                                    "critical caught 42 <" + longText + ">",
                                    "debug ends with a line end"};
    for (int i = 0; i < 3; ++i) {
        // "YYYY-MM-DD HH:MM:SS.mmm <level word, padded> <message>"
        const std::string& line = lines[i + 1];
        const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
        ASSERT_GT(line.size(), shape.size());
        for (size_t at = 0; at < shape.size(); ++at) {
            const unsigned char c = static_cast<unsigned char>(line[at]);
            ASSERT_TRUE(shape[at] == 'd' ? isdigit(c) != 0 : c == shape[at]) << line.substr(0, 80);
        }
        const size_t word = line.find(' ', shape.size());
        const size_t text = line.find_first_not_of(' ', word);
        EXPECT_EQ(line.substr(shape.size(), word - shape.size()) + " " + line.substr(text),
                  expected[i]);
    }
}

TEST_F(LoggerTest, ConcurrentWritersNeverInterleaveLines) {
    auto logger = Open(LL_DEBUG);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            const std::string payload(3000, static_cast<char>('a' + t));
            for (int i = 0; i < 200; ++i)
                logger->Log(LL_INFO, "%d %s", t, payload.c_str());
        });
    }
    for (auto& thread : threads)
        thread.join();
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 1600u);
    for (const std::string& line : lines) {
        ASSERT_GT(line.size(), 3002u);
        const int t = line[line.size() - 3002] - '0';
        ASSERT_TRUE(t >= 0 && t < 8) << line.substr(0, 80);
        ASSERT_EQ(line.substr(line.size() - 3001), " " + std::string(3000, 'a' + t));
    }
}

}  // namespace
