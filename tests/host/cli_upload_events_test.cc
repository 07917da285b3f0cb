// The answers to failed uploads, by policy, with the pauses recorded instead
// of slept, and the recovery paths they hand out.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cli/upload_events.h"
#include "support/test_env.h"

namespace {

using std::chrono::seconds;

class UploadEventsTest : public ::testing::Test {
  protected:
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

    RecordingLog::Line LastLine() { return log_.Last(); }

    TempDir tmp_;
    const std::string dir_ = tmp_.path();
    std::string recovery_ = dir_ + "/recovered";
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
    auto never = Make(UploadFailureAction::kRetry, 0);  // zero retries: saved at once
    EXPECT_EQ(Ask(*never, "/mnt/vol/a"), UPLOAD_ANSWER_SAVE);
    EXPECT_EQ(pauses_.size(), 4u);
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

}  // namespace
