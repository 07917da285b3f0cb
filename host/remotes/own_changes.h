// The protocol's own recent changes to the remote folder, remembered for a
// few seconds so that the change watcher does not report them back to the
// library as changes made by other programs. Best effort: an own change that
// is reported anyway only costs the library a little extra work.
#ifndef SKARVO_REMOTES_OWN_CHANGES_H_
#define SKARVO_REMOTES_OWN_CHANGES_H_

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

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
        std::string key;
        uint32_t mask = 0;
        bool subtree = false;
        Clock::time_point expires;
    };

    const Clock::duration window_;
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

#endif  // SKARVO_REMOTES_OWN_CHANGES_H_
