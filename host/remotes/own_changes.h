// The protocol's own recent changes to the remote folder, remembered for a
// few seconds so that the change watcher does not report them back to the
// library as changes made by other programs. Best effort: an own change that
// is reported anyway only costs the library a little extra work.
#ifndef SKARVO_REMOTES_OWN_CHANGES_H_
#define SKARVO_REMOTES_OWN_CHANGES_H_

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

// Every operation takes constant time on average, however many changes the
// window holds: thousands of files created in a few seconds are common.
class OwnChanges {
  public:
    using Clock = std::chrono::steady_clock;

    explicit OwnChanges(Clock::duration window = std::chrono::seconds(3)) : window_(window) {}

    // The protocol is about to change the item `key` in a way that raises
    // the inotify events `mask` (IN_* bits); with `subtree`, events on every
    // item below `key` count too. Thread safe.
    void Expect(const std::string& key, uint32_t mask, bool subtree);
    // Whether an event of `mask` on `key` was announced within the window.
    bool IsOwn(const std::string& key, uint32_t mask);

  private:
    struct Entry {
        uint32_t mask = 0;
        Clock::time_point expires;
    };
    using Entries = std::unordered_map<std::string, Entry>;

    // Forgets what expired before `now`.
    void ExpireLocked(Clock::time_point now);

    const Clock::duration window_;
    std::mutex mutex_;
    Entries items_;     // by key
    Entries subtrees_;  // by key of the folder whose whole subtree counts
    // Each announcement's expiry, oldest first. An entry announced again
    // expires with its last announcement.
    struct Expiry {
        Clock::time_point expires;
        std::string key;
        bool subtree;
    };
    std::deque<Expiry> expiries_;
};

#endif  // SKARVO_REMOTES_OWN_CHANGES_H_
