#include "services/legacy_records.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "libfilesystem/unique_fd.h"
#include "services/name_suffix.h"

namespace {

constexpr char kEntryHeader[] = "skarvo-cache-entry 1";
constexpr char kRecordSuffix[] = ".map";

bool ParseNumber(const std::string& text, int64_t* value) {
    if (text.empty() || text.size() > 18 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *value = static_cast<int64_t>(std::strtoll(text.c_str(), nullptr, 10));
    return true;
}

// Walks a record from front to back.
class Reader {
  public:
    explicit Reader(const std::string& text) : text_(text) {}

    bool AtEnd() const { return pos_ == text_.size(); }

    bool Line(std::string* line) {
        const size_t end = text_.find('\n', pos_);
        if (end == std::string::npos) return false;
        *line = text_.substr(pos_, end - pos_);
        pos_ = end + 1;
        return true;
    }

    // "<word> " followed by the rest of the line.
    bool Field(const char* word, std::string* value) {
        std::string line;
        const std::string prefix = std::string(word) + ' ';
        if (!Line(&line) || line.compare(0, prefix.size(), prefix) != 0) return false;
        *value = line.substr(prefix.size());
        return true;
    }

    bool NumberField(const char* word, int64_t* value) {
        std::string text;
        return Field(word, &text) && ParseNumber(text, value);
    }

    // "<length>:<bytes>" then the line end.
    bool Counted(std::string* value) {
        const size_t colon = text_.find(':', pos_);
        if (colon == std::string::npos) return false;
        int64_t length = 0;
        if (!ParseNumber(text_.substr(pos_, colon - pos_), &length)) return false;
        const size_t start = colon + 1;
        if (static_cast<uint64_t>(length) >= text_.size() - start) return false;
        const size_t end = start + static_cast<size_t>(length);
        if (text_[end] != '\n') return false;
        *value = text_.substr(start, static_cast<size_t>(length));
        pos_ = end + 1;
        return true;
    }

    // "<word> " at the current position.
    bool Word(const char* word) {
        const std::string prefix = std::string(word) + ' ';
        if (text_.compare(pos_, prefix.size(), prefix) != 0) return false;
        pos_ += prefix.size();
        return true;
    }

    // "<word> " followed by a counted string.
    bool CountedField(const char* word, std::string* value) { return Word(word) && Counted(value); }

  private:
    const std::string& text_;
    size_t pos_ = 0;
};

bool ValidBlockSize(int64_t value) {
    return value >= 512 && value <= (64 << 20);
}

// The origin lines, which records saved before origins were kept lack.
bool ReadOrigin(Reader& reader, EntryOrigin* origin) {
    if (reader.AtEnd()) return true;
    std::string size;
    if (!reader.CountedField("origin", &origin->path) ||
        !reader.CountedField("remote", &origin->remote) || !reader.Field("base-size", &size) ||
        !reader.CountedField("base-time", &origin->baseModifyTime) ||
        !reader.CountedField("base-extra", &origin->baseExtra)) {
        return false;
    }
    origin->based = size != "-1";
    if (origin->based && !ParseNumber(size, &origin->baseSize)) return false;
    origin->known = true;
    return true;
}

// One record file; its block size goes to *blockSize.
bool DecodeEntryRecord(const std::string& text, EntryRecord* record, uint32_t* blockSize) {
    Reader reader(text);
    EntryRecord parsed;
    std::string header;
    int64_t size = 0;
    if (!reader.Line(&header) || header != kEntryHeader) return false;
    if (!reader.NumberField("block-size", &size) || !ValidBlockSize(size)) return false;
    *blockSize = static_cast<uint32_t>(size);
    if (!reader.NumberField("size", &parsed.size)) return false;
    if (!reader.NumberField("fetch-limit", &parsed.fetchLimit)) return false;
    if (!reader.CountedField("key", &parsed.key) || parsed.key.empty()) return false;
    if (!reader.CountedField("extra", &parsed.extra)) return false;
    if (!reader.Field("blocks", &parsed.blocks) || !ReadOrigin(reader, &parsed.origin) ||
        !reader.AtEnd()) {
        return false;
    }
    *record = std::move(parsed);
    return true;
}

bool ReadFileContent(const std::string& path, std::string* content) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) return false;
    char buffer[16384];
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return true;
        content->append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace

LegacyRecords ReadLegacyRecords(const std::string& dataDir) {
    LegacyRecords legacy;
    DIR* folder = opendir(dataDir.c_str());
    if (folder == nullptr) return legacy;
    while (const dirent* item = readdir(folder)) {
        const std::string file = item->d_name;
        if (!EndsWith(file, kRecordSuffix)) continue;
        const std::string name = file.substr(0, file.size() - strlen(kRecordSuffix));
        if (!IsValidEntryName(name)) continue;  // not ours
        std::string text;
        EntryRecord record;
        uint32_t blockSize = 0;
        if (ReadFileContent(dataDir + "/" + file, &text) &&
            DecodeEntryRecord(text, &record, &blockSize) &&
            (legacy.blockSize == 0 || legacy.blockSize == blockSize)) {
            legacy.blockSize = blockSize;
            record.name = name;
            legacy.records.push_back(std::move(record));
        } else {
            legacy.unreadable.push_back(name);
        }
    }
    closedir(folder);
    return legacy;
}
