// The ETags that this remote's own uploads replaced.
//
// An upload is sent with "If-Match: ETAG", ETAG being the one of the version
// the local change was based on, which the library keeps in the record's
// `extra`. After this remote itself stored a file, the library may still hold
// the ETag from before that upload; the change it uploads next builds on this
// remote's own last upload, so the condition follows the ETag forward through
// this remote's own uploads. An ETag that some other client produced is
// never replaced, so a change made elsewhere still fails the condition.
// Bounded: kMaxFiles files with kMaxChain ETags each. Thread safe.
#ifndef SKARVO_REMOTES_WEBDAV_OWN_ETAGS_H_
#define SKARVO_REMOTES_WEBDAV_OWN_ETAGS_H_

#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>

class OwnEtags {
  public:
    static constexpr size_t kMaxFiles = 4096;
    static constexpr size_t kMaxChain = 32;

    // The ETag to send for `key` when the library's record says `etag`.
    std::string Current(const std::string& key, const std::string& etag);
    // The ETag of this remote's last upload of `key`; "" when none is known.
    std::string Latest(const std::string& key);
    // This remote stored `key`, replacing `before` ("" for a new file) with
    // `after`.
    void Stored(const std::string& key, const std::string& before, const std::string& after);
    void Moved(const std::string& from, const std::string& to);
    void Removed(const std::string& key);

  private:
    struct Chain {
        std::deque<std::string> replaced;
        std::string latest;
    };
    std::mutex mutex_;
    std::unordered_map<std::string, Chain> chains_;
};

#endif  // SKARVO_REMOTES_WEBDAV_OWN_ETAGS_H_
