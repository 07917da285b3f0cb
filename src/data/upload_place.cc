#include "data/upload_place.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>

#include "foundation/string_utils.h"

namespace {

std::mutex placesMutex;
std::condition_variable placesFreed;
std::set<std::string> heldPlaces;  // guarded by placesMutex

std::string KeyOf(const UploadPlace& place) {
    // Names in one folder are unique once folded, as the tree keys them.
    return std::to_string(reinterpret_cast<uintptr_t>(place.protocol)) + '\n' + place.parentKey +
           '\n' + FoldName(place.name);
}

}  // namespace

UploadPlaceReservation::UploadPlaceReservation(const UploadPlace& place,
                                               const std::atomic<bool>& canceled)
    : key_(KeyOf(place)) {
    std::unique_lock<std::mutex> lock(placesMutex);
    while (!canceled.load()) {
        if (heldPlaces.insert(key_).second) {
            held_ = true;
            return;
        }
        // Polled as well, so that a cancel ends the wait.
        placesFreed.wait_for(lock, std::chrono::milliseconds(50));
    }
}

bool IsUploadPlaceHeld(const UploadPlace& place) {
    const std::string key = KeyOf(place);
    std::lock_guard<std::mutex> lock(placesMutex);
    return heldPlaces.count(key) != 0;
}

UploadPlaceReservation::~UploadPlaceReservation() {
    if (!held_) return;
    {
        std::lock_guard<std::mutex> lock(placesMutex);
        heldPlaces.erase(key_);
    }
    placesFreed.notify_all();
}
