#include "cli/run_loop.h"

#include "cli/sizes.h"

namespace {

constexpr std::chrono::milliseconds kPollEvery{1000};
constexpr std::chrono::milliseconds kGoneCheckEvery{100};
// Checks for the volume to go away before the user hears that it takes long.
constexpr int kGoneChecksBeforeNotice = 50;

// Waits for the volume's teardown to complete. A stop signal before then
// forces the unmount when it was not forced yet, and gives up otherwise.
RunEnd WaitUntilGone(VolumeControl& volume, const std::string& mountPoint, bool forced) {
    int checks = 0;
    while (volume.IsMounted()) {
        if (volume.WaitForSignal(kGoneCheckEvery)) {
            if (forced) {
                volume.Say("stopping without waiting for " + mountPoint + " to be unmounted");
                return RunEnd::kAbandoned;
            }
            forced = true;
            volume.Say("forcing the unmount of " + mountPoint);
            volume.Forcing();
            const AERROR result = volume.Unmount(true);
            if (result != SUCCESS && result != FS_INVALID_LETTER) {
                volume.Say(std::string("forced unmount failed: ") + GetAERRORA(result));
            }
            checks = 0;
            continue;
        }
        if (++checks == kGoneChecksBeforeNotice) {
            volume.Say("still waiting for " + mountPoint + " to go away; press Ctrl-C again to " +
                       (forced ? "quit without waiting" : "force it"));
        }
    }
    return RunEnd::kUnmounted;
}

}  // namespace

std::string WaitingForUploadsMessage(int count, uint64_t unsentBytes) {
    return "waiting for " + std::to_string(count) + (count == 1 ? " upload" : " uploads") + " (" +
           FormatBytes(unsentBytes) + "); press Ctrl-C again to stop now";
}

bool ForceUnmount(VolumeControl& volume) {
    volume.Forcing();
    volume.Unmount(true);
    while (volume.IsMounted()) {
        if (volume.WaitForSignal(kGoneCheckEvery)) return false;
    }
    return true;
}

RunEnd RunUntilUnmounted(VolumeControl& volume, const std::string& mountPoint) {
    while (!volume.WaitForSignal(kPollEvery)) {
        if (!volume.IsMounted()) return RunEnd::kUnmountedOutside;
        volume.Tick();
    }

    std::string lastSaid;
    auto sayOnce = [&](const std::string& line) {
        if (line != lastSaid) volume.Say(line);
        lastSaid = line;
    };
    for (;;) {
        const AERROR result = volume.Unmount(false);
        if (result == SUCCESS) return WaitUntilGone(volume, mountPoint, false);
        if (result == FS_INVALID_LETTER) return RunEnd::kUnmounted;  // gone meanwhile
        if (result == FS_UNMOUNT_EXIST_UPLOADING) {
            sayOnce(WaitingForUploadsMessage(volume.CountUploads(), volume.UnsentBytes()));
        } else {
            sayOnce("cannot unmount " + mountPoint + ": " + GetAERRORA(result) +
                    "; retrying, press Ctrl-C again to force");
        }
        if (volume.WaitForSignal(kPollEvery)) {
            volume.Say("forcing the unmount of " + mountPoint);
            volume.Forcing();
            const AERROR forced = volume.Unmount(true);
            if (forced == FS_INVALID_LETTER) return RunEnd::kUnmounted;
            if (forced != SUCCESS) {
                volume.Say(std::string("forced unmount failed: ") + GetAERRORA(forced));
            }
            return WaitUntilGone(volume, mountPoint, true);
        }
        if (!volume.IsMounted()) return RunEnd::kUnmountedOutside;
    }
}
