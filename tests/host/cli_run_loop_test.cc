// Serving and unmounting, driven through a scripted volume: which signal
// comes on which wait, what Unmount answers, and when the volume goes away.
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "cli/run_loop.h"

namespace {

class ScriptedVolume : public VolumeControl {
  public:
    // Waits answer from `signals` (false once it runs out). The volume goes
    // away `goneAfterWaits` waits after a successful Unmount, or at the wait
    // numbered `outsideAt` (counting from 1) on its own.
    std::deque<bool> signals;
    std::deque<AERROR> unmountAnswers;  // SUCCESS once it runs out
    int goneAfterWaits = 0;
    int outsideAt = -1;
    int uploads = 3;
    uint64_t unsent = 1288490189;

    std::vector<std::string> said;
    std::vector<bool> unmountCalls;  // the force flag of each call
    int forcing = 0;
    int waits = 0;

    bool WaitForSignal(std::chrono::milliseconds) override {
        ++waits;
        if (waits == outsideAt) mounted_ = false;
        if (unmounting_ && --countdown_ <= 0) mounted_ = false;
        if (signals.empty()) return false;
        const bool signal = signals.front();
        signals.pop_front();
        return signal;
    }
    AERROR Unmount(bool force) override {
        unmountCalls.push_back(force);
        if (!mounted_) return FS_INVALID_LETTER;
        AERROR answer = SUCCESS;
        if (!unmountAnswers.empty()) {
            answer = unmountAnswers.front();
            unmountAnswers.pop_front();
        }
        if (answer == SUCCESS) {
            unmounting_ = true;
            countdown_ = goneAfterWaits;
            if (countdown_ <= 0) mounted_ = false;
        }
        return answer;
    }
    bool IsMounted() override { return mounted_; }
    int CountUploads() override { return uploads; }
    uint64_t UnsentBytes() override { return unsent; }
    void Say(const std::string& line) override { said.push_back(line); }
    void Forcing() override { ++forcing; }

  private:
    bool mounted_ = true;
    bool unmounting_ = false;
    int countdown_ = 0;
};

TEST(CliRunLoopTest, UnmountFromOutsideEndsTheRun) {
    ScriptedVolume volume;
    volume.outsideAt = 3;
    EXPECT_EQ(RunUntilUnmounted(volume, "/m"), RunEnd::kUnmountedOutside);
    EXPECT_TRUE(volume.unmountCalls.empty());
    EXPECT_TRUE(volume.said.empty());
}

TEST(CliRunLoopTest, SignalUnmountsAndWaitsForTheTeardown) {
    ScriptedVolume volume;
    volume.signals = {false, false, true};
    volume.goneAfterWaits = 4;
    EXPECT_EQ(RunUntilUnmounted(volume, "/m"), RunEnd::kUnmounted);
    EXPECT_EQ(volume.unmountCalls, std::vector<bool>{false});
    EXPECT_FALSE(volume.IsMounted());
    EXPECT_EQ(volume.forcing, 0);
}

TEST(CliRunLoopTest, WaitsForUploadsAndSaysSoOnce) {
    ScriptedVolume volume;
    volume.signals = {true};
    volume.unmountAnswers = {FS_UNMOUNT_EXIST_UPLOADING, FS_UNMOUNT_EXIST_UPLOADING,
                             FS_UNMOUNT_EXIST_UPLOADING};
    EXPECT_EQ(RunUntilUnmounted(volume, "/m"), RunEnd::kUnmounted);
    EXPECT_EQ(volume.unmountCalls, (std::vector<bool>{false, false, false, false}));
    ASSERT_EQ(volume.said.size(), 1u);
    EXPECT_EQ(volume.said[0], "waiting for 3 uploads (1.2 GiB); press Ctrl-C again to stop now");
    EXPECT_EQ(WaitingForUploadsMessage(1, 10),
              "waiting for 1 upload (10 B); press Ctrl-C again "
              "to stop now");
}

TEST(CliRunLoopTest, SignalsDuringASlowTeardownForceThenGiveUp) {
    ScriptedVolume volume;
    volume.signals = {true, false, true, false, true};
    volume.goneAfterWaits = 1000;  // never within the script
    EXPECT_EQ(RunUntilUnmounted(volume, "/m"), RunEnd::kAbandoned);
    EXPECT_EQ(volume.unmountCalls, (std::vector<bool>{false, true}));
    EXPECT_EQ(volume.forcing, 1);
}

TEST(CliRunLoopTest, FailedUnmountKeepsTryingUntilForced) {
    ScriptedVolume volume;
    volume.signals = {true, false, false, true};
    volume.unmountAnswers = {FS_UNMOUNT_FAILED, FS_UNMOUNT_FAILED, FS_UNMOUNT_FAILED};
    EXPECT_EQ(RunUntilUnmounted(volume, "/m"), RunEnd::kUnmounted);
    EXPECT_EQ(volume.unmountCalls, (std::vector<bool>{false, false, false, true}));
    EXPECT_EQ(volume.forcing, 1);
    EXPECT_NE(volume.said.front().find("FS_UNMOUNT_FAILED"), std::string::npos);
}

TEST(CliRunLoopTest, ForceUnmountAfterAStartFailure) {
    ScriptedVolume volume;
    volume.goneAfterWaits = 3;
    EXPECT_TRUE(ForceUnmount(volume));
    EXPECT_EQ(volume.unmountCalls, std::vector<bool>{true});
    EXPECT_EQ(volume.forcing, 1);

    ScriptedVolume stuck;
    stuck.goneAfterWaits = 1000;
    stuck.signals = {false, true};
    EXPECT_FALSE(ForceUnmount(stuck));
}

}  // namespace
