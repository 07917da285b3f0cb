#include "cli/upload_ledger.h"

void UploadLedger::Progress(const std::string& path, uint64_t done, uint64_t total) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (done >= total) {
        notes_.erase(path);
        return;
    }
    UploadNote& note = notes_[path];
    note.running = true;
    note.sent = done;
}

void UploadLedger::Failed(const std::string& path, AERROR code) {
    std::lock_guard<std::mutex> lock(mutex_);
    UploadNote& note = notes_[path];
    note.running = false;
    note.sent = 0;
    ++note.failures;
    note.lastError = GetAERRORA(code);
}

void UploadLedger::Forget(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    notes_.erase(path);
}

std::map<std::string, UploadNote> UploadLedger::Notes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return notes_;
}
