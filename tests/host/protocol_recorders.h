// What the remotes' tests hand to a remote through IProtocol_V2: an upload
// source, and recorders of listings, downloads and change reports.
#ifndef SKARVO_TESTS_HOST_PROTOCOL_RECORDERS_H_
#define SKARVO_TESTS_HOST_PROTOCOL_RECORDERS_H_

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "libfilesystem/protocol.h"

// Serves `data`, at most `maxPerRead` bytes a call; it can fail or end at an
// offset, and run a check before each read.
class StringSource : public ICacheIO {
  public:
    explicit StringSource(std::string data) : data_(std::move(data)) {}
    AERROR Read(_READDATA* request) override {
        handles.push_back(request->handle);
        if (beforeRead) beforeRead(request->offset);
        if (failAt >= 0 && request->offset >= failAt) return FAILED;
        const int64_t end = endAt < 0 ? data_.size() : endAt;
        request->read = std::min<int64_t>(
            {std::max<int64_t>(0, end - request->offset), int64_t(request->size), maxPerRead});
        memcpy(request->buffer, data_.data() + request->offset, request->read);
        given += request->read;
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA*) override { return NOT_SUPPORTED; }
    int64_t maxPerRead = 1 << 30;
    int64_t failAt = -1;
    int64_t endAt = -1;
    int64_t given = 0;  // bytes handed out
    std::function<void(int64_t)> beforeRead;
    std::vector<std::shared_ptr<_FS_HANDLE>> handles;

  private:
    std::string data_;
};

class ListRecorder : public IFileList {
  public:
    AERROR AddFile(const _FS_FILE_V2* record) override {
        records[record->name] = *record;
        return SUCCESS;
    }
    std::string Names() const {
        std::string names;
        for (const auto& entry : records)
            names += entry.first + " ";
        return names;
    }
    std::map<std::string, _FS_FILE_V2> records;
};

// Change reports as lines: "added /docs a.txt", "removed / b", "changed /a.txt
// 12" (with the size), "refresh /".
class ChangeRecorder : public IFileChanges {
  public:
    AERROR Added(const char* key, _FS_FILE_V2* record) override {
        return Note(std::string("added ") + key + " " + record->name);
    }
    AERROR Removed(const char* key, const char* name) override {
        return Note(std::string("removed ") + key + " " + name);
    }
    AERROR Changed(const char* key, _FS_FILE_V2* record) override {
        return Note(std::string("changed ") + key + " " + std::to_string(record->size));
    }
    AERROR Refresh(const char* key) override { return Note(std::string("refresh ") + key); }
    bool Has(const std::string& line) const { return all.find(line + "\n") != std::string::npos; }
    std::string all;

  private:
    AERROR Note(const std::string& line) {
        all += line + "\n";
        return SUCCESS;
    }
};

// Collects downloaded data, checking that pieces come in order from
// `expectedOffset`.
class FetchRecorder : public IFetchCallback {
  public:
    explicit FetchRecorder(long long offset = 0) : expectedOffset(offset) {}
    AERROR FetchWrite(long long offset, const char* bytes, long size, long* written) override {
        contiguous = contiguous && offset == expectedOffset;
        expectedOffset = offset + size;
        data.append(bytes, size);
        *written = size;
        return SUCCESS;
    }
    long long expectedOffset;
    bool contiguous = true;
    std::string data;
};

inline _FS_FILE_V2 Record(const std::string& name, int64_t size = 0, const std::string& key = "") {
    _FS_FILE_V2 record;
    record.name = name;
    record.size = size;
    record.key = key;
    return record;
}

inline std::string ReadText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

#endif  // SKARVO_TESTS_HOST_PROTOCOL_RECORDERS_H_
