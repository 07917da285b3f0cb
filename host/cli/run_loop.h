// Serving a mounted volume until it is to go away, and unmounting it: the
// first stop signal asks for an unmount that waits for uploads, a second one
// forces it.
#ifndef SKARVO_CLI_RUN_LOOP_H_
#define SKARVO_CLI_RUN_LOOP_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "libfilesystem/aerror.h"

// The mounted volume and the process's stop signals, as the run loop sees them.
class VolumeControl {
  public:
    virtual ~VolumeControl() = default;
    // Waits up to `timeout` for SIGINT, SIGTERM or SIGHUP; true when one came.
    virtual bool WaitForSignal(std::chrono::milliseconds timeout) = 0;
    virtual AERROR Unmount(bool force) = 0;
    // Whether the volume is still there (its teardown has not completed).
    virtual bool IsMounted() = 0;
    virtual int CountUploads() = 0;
    // Bytes written to the volume and not yet uploaded.
    virtual uint64_t UnsentBytes() = 0;
    // Tells the user `line`.
    virtual void Say(const std::string& line) = 0;
    // A forced unmount starts: failed uploads must stop waiting to be retried.
    virtual void Forcing() = 0;
    // Called about once a second while the volume serves, for housekeeping.
    virtual void Tick() {}
};

enum class RunEnd {
    kUnmounted,         // after a stop signal; the volume is gone
    kUnmountedOutside,  // unmounted from outside (fusermount -u, umount)
    kAbandoned,         // the user gave up waiting for a forced unmount to end
};

// Runs until the volume at `mountPoint` is gone. Checks every second whether
// it was unmounted from outside. On a stop signal it unmounts, retrying every
// second while uploads run and telling the user how many wait; a further
// signal forces the unmount, and one more gives up waiting.
RunEnd RunUntilUnmounted(VolumeControl& volume, const std::string& mountPoint);

// Forces the unmount and waits for the volume to be gone; false when a stop
// signal came first.
bool ForceUnmount(VolumeControl& volume);

// "waiting for 3 uploads (1.2 GiB); press Ctrl-C again to stop now".
std::string WaitingForUploadsMessage(int count, uint64_t unsentBytes);

#endif  // SKARVO_CLI_RUN_LOOP_H_
