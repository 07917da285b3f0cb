// This remote's uploads in flight, and the folders it is moving or deleting.
//
// Apache's mod_dav_fs writes a PUT body into a temporary file (".davfs.tmp...")
// in the folder of the target and renames it over the target at the end. A
// MOVE of that folder (or of one above it) while the body streams carries the
// temporary file along: the PUT's final rename fails (500) and the temporary
// file stays in the moved folder for good. So a MOVE or DELETE of a folder
// first waits until this remote's PUTs below it have ended, and a PUT below a
// folder being moved or deleted waits until that is over.
//
// Each wait is bounded (the remote's time-out); past it the operation goes on
// and the pass says so. Only PUTs and folder moves and deletes take part:
// lookups, listings and downloads never wait here, and no lock is held while
// waiting. Thread safe.
#ifndef SKARVO_REMOTES_WEBDAV_TRANSFER_GATE_H_
#define SKARVO_REMOTES_WEBDAV_TRANSFER_GATE_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

class TransferGate {
  public:
    // Held for as long as the request runs; lets the others go on when it ends.
    class Pass {
      public:
        Pass(Pass&& other) noexcept;
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        Pass& operator=(Pass&&) = delete;
        ~Pass();
        // The wait reached its bound: the others were still running.
        bool WaitedOut() const { return waitedOut_; }

      private:
        friend class TransferGate;
        Pass(TransferGate* gate, std::multiset<std::string>* held, std::string key, bool waitedOut);
        TransferGate* gate_;
        std::multiset<std::string>* held_;
        std::string key_;
        bool waitedOut_;
    };

    explicit TransferGate(std::chrono::milliseconds limit) : limit_(limit) {}

    // A PUT of the file `key`: waits while a folder at or above it is being
    // moved or deleted.
    Pass Upload(const std::string& key);
    // A MOVE or DELETE of the folder `key`: waits for the PUTs below it.
    Pass Folder(const std::string& key);

  private:
    static bool AnyAtOrAbove(const std::multiset<std::string>& folders, const std::string& key);
    static bool AnyAtOrBelow(const std::multiset<std::string>& uploads, const std::string& key);
    void Leave(std::multiset<std::string>* held, const std::string& key);

    const std::chrono::milliseconds limit_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::multiset<std::string> uploads_;  // keys of PUTs in flight
    std::multiset<std::string> folders_;  // keys of folders being moved or deleted
};

#endif  // SKARVO_REMOTES_WEBDAV_TRANSFER_GATE_H_
