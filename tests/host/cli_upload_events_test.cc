// The answers to failed uploads, by policy, with the pauses recorded instead
// of slept, and the recovery paths they hand out; and the progress display.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "cli/progress.h"
#include "cli/upload_events.h"

namespace {

using std::chrono::seconds;

class RecordingLog : public ILog {
  public:
    bool IsEnabled(LOGLEVEL) override { return true; }
    void LogV(LOGLEVEL level, const char* format, va_list args) override {
        char text[2048];
        vsnprintf(text, sizeof(text), format, args);
        std::lock_guard<std::mutex> lock(mutex_);
        lines.push_back({level, text});
    }
    struct Line {
        LOGLEVEL level;
        std::string text;
    };
    std::vector<Line> lines;

  private:
    std::mutex mutex_;
};

class UploadEventsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/cli_upload_events_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        recovery_ = dir_ + "/recovered";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::unique_ptr<UploadEvents> Make(UploadFailureAction action, int retries = 5) {
        UploadPolicy policy;
        policy.action = action;
        policy.retries = retries;
        policy.recoveryDir = recovery_;
        return std::make_unique<UploadEvents>(policy, "/mnt/vol", &log_, false,
                                              [this](seconds delay) {
                                                  pauses_.push_back(delay.count());
                                                  return true;
                                              });
    }

    int Ask(UploadEvents& events, const char* path, std::string* answer = nullptr) {
        char buffer[4096] = "";
        const int result = events.AskUploadFailure(NET_WRITE_FAILED, path, buffer, sizeof(buffer));
        if (answer != nullptr) *answer = buffer;
        return result;
    }

    const RecordingLog::Line& LastLine() const { return log_.lines.back(); }

    std::string dir_;
    std::string recovery_;
    RecordingLog log_;
    std::vector<long> pauses_;
};

TEST_F(UploadEventsTest, RetriesWithGrowingPausesThenSaves) {
    auto events = Make(UploadFailureAction::kRetry);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Ask(*events, "/mnt/vol/docs/a.txt"), UPLOAD_ANSWER_RETRY);
        EXPECT_EQ(LastLine().level, LL_WARNING);
        EXPECT_NE(LastLine().text.find("/mnt/vol/docs/a.txt"), std::string::npos);
        EXPECT_NE(LastLine().text.find("NET_WRITE_FAILED"), std::string::npos);
    }
    EXPECT_EQ(pauses_, (std::vector<long>{1, 2, 4, 8, 16}));

    // Another file counts on its own.
    EXPECT_EQ(Ask(*events, "/mnt/vol/b.txt"), UPLOAD_ANSWER_RETRY);
    EXPECT_EQ(pauses_.back(), 1);

    std::string answer;
    EXPECT_EQ(Ask(*events, "/mnt/vol/docs/a.txt", &answer), UPLOAD_ANSWER_SAVE);
    EXPECT_EQ(answer, recovery_ + "/docs/a.txt");
    EXPECT_TRUE(std::filesystem::is_directory(recovery_ + "/docs"));
    EXPECT_NE(LastLine().text.find(answer), std::string::npos);
    EXPECT_NE(LastLine().text.find("NET_WRITE_FAILED"), std::string::npos);

    // After a save the file starts over with a short pause.
    EXPECT_EQ(Ask(*events, "/mnt/vol/docs/a.txt"), UPLOAD_ANSWER_RETRY);
    EXPECT_EQ(pauses_.back(), 1);
    EXPECT_EQ(UploadEvents::Backoff(7), seconds(60));
    EXPECT_EQ(UploadEvents::Backoff(40), seconds(60));
}

TEST_F(UploadEventsTest, ACompletedUploadResetsTheCount) {
    auto events = Make(UploadFailureAction::kRetry, 2);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_RETRY);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_RETRY);
    events->Progress("/mnt/vol/a", 50, 100, 10.0);  // not finished: no reset
    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_SAVE);

    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_RETRY);
    events->Progress("/mnt/vol/a", 100, 100, 10.0);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_RETRY);
    EXPECT_EQ(pauses_, (std::vector<long>{1, 2, 1, 1}));
}

TEST_F(UploadEventsTest, ZeroRetriesSavesAtOnce) {
    auto events = Make(UploadFailureAction::kRetry, 0);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a"), UPLOAD_ANSWER_SAVE);
    EXPECT_TRUE(pauses_.empty());
}

TEST_F(UploadEventsTest, SaveNeverReusesARecoveredName) {
    auto events = Make(UploadFailureAction::kSave);
    std::filesystem::create_directories(recovery_ + "/notes");
    std::ofstream(recovery_ + "/notes/todo.txt") << "saved earlier";

    std::string first;
    std::string second;
    EXPECT_EQ(Ask(*events, "/mnt/vol/notes/todo.txt", &first), UPLOAD_ANSWER_SAVE);
    EXPECT_EQ(first, recovery_ + "/notes/todo.txt.1");
    // Not written yet by the library, but handed out already.
    EXPECT_EQ(Ask(*events, "/mnt/vol/notes/todo.txt", &second), UPLOAD_ANSWER_SAVE);
    EXPECT_EQ(second, recovery_ + "/notes/todo.txt.2");
    EXPECT_TRUE(pauses_.empty());

    std::ifstream kept(recovery_ + "/notes/todo.txt");
    std::string content;
    std::getline(kept, content);
    EXPECT_EQ(content, "saved earlier");

    events->Notice(FSNOTICE_SAVED_TO_FILE, "/mnt/vol/notes/todo.txt", "", "");
    EXPECT_NE(LastLine().text.find(second), std::string::npos);
}

TEST_F(UploadEventsTest, RecoveryPathsStayInsideTheRecoveryFolder) {
    EXPECT_EQ(UploadEvents::RecoveryPathFor("/r", "/mnt/vol", "/mnt/vol/a/b.txt"), "/r/a/b.txt");
    EXPECT_EQ(UploadEvents::RecoveryPathFor("/r/", "/mnt/vol", "/mnt/vol//a/./../b"), "/r/a/b");
    EXPECT_EQ(UploadEvents::RecoveryPathFor("/r", "/mnt/vol", "/mnt/volume/x"), "/r/mnt/volume/x");
    EXPECT_EQ(UploadEvents::RecoveryPathFor("/r", "/mnt/vol", "/mnt/vol"), "/r/unnamed");
}

TEST_F(UploadEventsTest, CancelIsLoggedAsAnError) {
    auto events = Make(UploadFailureAction::kCancel);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a.txt"), UPLOAD_ANSWER_CANCEL);
    EXPECT_EQ(LastLine().level, LL_ERROR);
    EXPECT_NE(LastLine().text.find("/mnt/vol/a.txt"), std::string::npos);
    EXPECT_NE(LastLine().text.find("NET_WRITE_FAILED"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(recovery_));
}

TEST_F(UploadEventsTest, DataThatCannotBeSavedStaysPending) {
    std::ofstream(dir_ + "/file") << "x";
    recovery_ = dir_ + "/file/recovered";  // below a file: cannot be created
    auto events = Make(UploadFailureAction::kSave);
    EXPECT_EQ(Ask(*events, "/mnt/vol/a.txt"), 0);
    EXPECT_EQ(LastLine().level, LL_ERROR);
    EXPECT_NE(LastLine().text.find("stays in the cache"), std::string::npos);

    recovery_ = dir_ + "/ok";
    auto tight = Make(UploadFailureAction::kSave);
    char small[8];
    EXPECT_EQ(tight->AskUploadFailure(FAILED, "/mnt/vol/a.txt", small, sizeof(small)), 0);
    EXPECT_EQ(LastLine().level, LL_ERROR);
}

TEST_F(UploadEventsTest, ShutdownTurnsRetriesIntoSaves) {
    UploadPolicy policy;
    policy.recoveryDir = recovery_;
    // The real pause: Shutdown must end it, or this answer would be a retry.
    UploadEvents events(policy, "/mnt/vol", &log_, false);
    events.Shutdown();
    std::string answer;
    EXPECT_EQ(Ask(events, "/mnt/vol/late.bin", &answer), UPLOAD_ANSWER_SAVE);
    EXPECT_EQ(answer, recovery_ + "/late.bin");
}

TEST_F(UploadEventsTest, RemoteErrorsAreLoggedWithTheProtocolsWords) {
    auto events = Make(UploadFailureAction::kRetry);
    int cookie = 0;
    events->SetCookieDescriber([&](void* c) {
        return c == &cookie ? std::string("No space left on device") : std::string();
    });
    events->Error(FSEVENT_LIST_FAILED, PATH_NOT_FOUND, "/mnt/vol/docs", "", &cookie);
    EXPECT_EQ(LastLine().level, LL_ERROR);
    EXPECT_NE(LastLine().text.find("/mnt/vol/docs"), std::string::npos);
    EXPECT_NE(LastLine().text.find("PATH_NOT_FOUND"), std::string::npos);
    EXPECT_NE(LastLine().text.find("No space left on device"), std::string::npos);
}

using Clock = ProgressView::Clock;

TEST(CliProgressTest, LineFitsTheTerminal) {
    const std::string line = FormatProgressLine("docs/big.iso", 45, 100, 12.5 * 1048576, 80);
    EXPECT_EQ(line, "docs/big.iso [#########-----------]  45%  12.5 MiB/s");
    EXPECT_EQ(ProgressPercent(0, 0), 100);
    EXPECT_EQ(ProgressPercent(999, 1000), 99);

    const std::string name = std::string(200, 'x') + "/tail.bin";
    for (size_t width : {20u, 40u, 80u, 200u}) {
        const std::string shown = FormatProgressLine(name, 1, 2, 0, width);
        EXPECT_LE(shown.size(), width - 1) << width;
    }
    const std::string cut = FormatProgressLine(name, 1, 2, 0, 80);
    EXPECT_EQ(cut.compare(0, 3, "..."), 0);
    EXPECT_NE(cut.find("tail.bin ["), std::string::npos);
}

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

}  // namespace
