#include "cli/volume_status.h"

#include <dirent.h>
#include <sys/stat.h>

#include <functional>
#include <vector>

#include "cli/sizes.h"
#include "cli/upload_events.h"
#include "services/name_suffix.h"

namespace {

constexpr size_t kMaxRecoveryFiles = 10000;

// Every file below `dir`, at most kMaxRecoveryFiles of them.
std::vector<std::string> FilesBelow(const std::string& dir) {
    std::vector<std::string> files;
    std::function<void(const std::string&)> walk = [&](const std::string& folder) {
        DIR* handle = opendir(folder.c_str());
        if (handle == nullptr) return;
        while (const dirent* item = readdir(handle)) {
            const std::string name = item->d_name;
            if (name == "." || name == ".." || files.size() >= kMaxRecoveryFiles) continue;
            const std::string path = folder + "/" + name;
            struct stat info {};
            if (lstat(path.c_str(), &info) != 0) continue;
            if (S_ISDIR(info.st_mode)) {
                walk(path);
            } else if (!EndsWith(name, kRecoveryPartSuffix)) {
                files.push_back(path);
            }
        }
        closedir(handle);
    };
    walk(dir);
    std::sort(files.begin(), files.end());
    return files;
}

Json::Value UploadEntry(const DiskCache::Unsent& unsent, const std::string& file,
                        const UploadNote* note) {
    Json::Value entry;
    entry["file"] = file;
    entry["size"] = Json::Int64(unsent.size);
    entry["state"] = note == nullptr ? "waiting" : note->running ? "uploading" : "failing";
    entry["sent"] = Json::UInt64(note != nullptr ? note->sent : 0);
    entry["attempts"] = note != nullptr ? note->failures : 0;
    entry["lastError"] = note != nullptr ? note->lastError : "";
    return entry;
}

}  // namespace

std::pair<size_t, uint64_t> PendingUploads(const DiskCache& cache) {
    std::pair<size_t, uint64_t> pending{0, 0};
    for (const DiskCache::Unsent& unsent : cache.UnsentEntries()) {
        if (unsent.origin.BelongsNowhere()) continue;
        ++pending.first;
        pending.second += unsent.bytes;
    }
    return pending;
}

Json::Value VolumeStatus(const DiskCache& cache, const UploadLedger& ledger,
                         const std::string& mountPoint, const std::string& recoveryDir) {
    const auto notes = ledger.Notes();
    Json::Value uploads(Json::arrayValue);
    for (const DiskCache::Unsent& unsent : cache.UnsentEntries()) {
        if (unsent.origin.BelongsNowhere()) continue;
        const std::string file = mountPoint + unsent.origin.VolumePath(unsent.key);
        const auto note = notes.find(file);
        uploads.append(UploadEntry(unsent, file, note != notes.end() ? &note->second : nullptr));
    }
    Json::Value recovered(Json::arrayValue);
    for (const std::string& file : FilesBelow(recoveryDir))
        recovered.append(file);
    Json::Value status;
    status["mountPoint"] = mountPoint;
    status["allOnRemote"] = uploads.empty() && recovered.empty();
    status["uploads"] = uploads;
    status["recoveryFolder"] = recoveryDir;
    status["recoveryFiles"] = recovered;
    return status;
}

std::string FormatVolumeStatus(const Json::Value& status) {
    std::string text;
    const Json::Value& uploads = status["uploads"];
    for (const Json::Value& upload : uploads) {
        text += upload["state"].asString() + "  " + upload["file"].asString() + "  " +
                FormatBytes(upload["size"].asUInt64());
        if (upload["state"].asString() == "uploading") {
            text += ", " + FormatBytes(upload["sent"].asUInt64()) + " sent";
        }
        if (upload["attempts"].asInt() > 0) {
            text += ", " + std::to_string(upload["attempts"].asInt()) +
                    " failed attempts, last: " + upload["lastError"].asString();
        }
        text += "\n";
    }
    const Json::Value& recovered = status["recoveryFiles"];
    if (!recovered.empty()) {
        text += std::to_string(recovered.size()) + " files in the recovery folder " +
                status["recoveryFolder"].asString() + ":\n";
        for (const Json::Value& file : recovered)
            text += "  " + file.asString() + "\n";
    }
    if (status["allOnRemote"].asBool()) {
        text += "everything is on the remote\n";
    } else if (!uploads.empty()) {
        text += std::to_string(uploads.size()) + " files written to " +
                status["mountPoint"].asString() + " are not on the remote yet\n";
    } else {
        text += "everything else is on the remote; the files in the recovery folder are not\n";
    }
    return text;
}
