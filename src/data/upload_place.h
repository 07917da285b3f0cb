// Where on the remote an upload stores a file, and the reservation that keeps
// two uploads from storing to the same place at once.
#ifndef LIBFS_DATA_UPLOAD_PLACE_H_
#define LIBFS_DATA_UPLOAD_PLACE_H_

#include <atomic>
#include <string>

// The folder and name an upload stores a node under, taken when it starts.
struct UploadPlace {
    const void* protocol = nullptr;
    std::string parentKey;
    std::string name;
};

// Holds `place` for one upload. A file renamed away while its upload runs is
// still stored at its old place and moved after; a new file given the old
// name meanwhile waits here, so the late upload never overwrites it.
class UploadPlaceReservation {
  public:
    // Waits until no other upload holds `place`, or `canceled` is set (then
    // Held() is false).
    UploadPlaceReservation(const UploadPlace& place, const std::atomic<bool>& canceled);
    ~UploadPlaceReservation();
    UploadPlaceReservation(const UploadPlaceReservation&) = delete;
    UploadPlaceReservation& operator=(const UploadPlaceReservation&) = delete;

    bool Held() const { return held_; }

  private:
    std::string key_;
    bool held_ = false;
};

// Whether an upload holds `place` now.
bool IsUploadPlaceHeld(const UploadPlace& place);

#endif  // LIBFS_DATA_UPLOAD_PLACE_H_
