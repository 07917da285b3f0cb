#include "services/cache_records.h"

#include <cstdlib>
#include <utility>

namespace {

constexpr char kEntryHeader[] = "skarvo-cache-entry 1";
constexpr char kIndexHeader[] = "skarvo-cache-index 1";

// Strings that may hold any byte, line ends included, are written as
// "<length>:<bytes>".
void AppendCounted(std::string* out, const std::string& value) {
    *out += std::to_string(value.size());
    *out += ':';
    *out += value;
}

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

    // Characters up to the next blank, which is passed over.
    bool Token(std::string* value) {
        const size_t blank = text_.find(' ', pos_);
        const size_t line = text_.find('\n', pos_);
        if (blank == std::string::npos || (line != std::string::npos && line < blank)) return false;
        *value = text_.substr(pos_, blank - pos_);
        pos_ = blank + 1;
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

}  // namespace

std::string EncodeEntryRecord(const EntryRecord& record) {
    std::string out = std::string(kEntryHeader) + '\n';
    out += "block-size " + std::to_string(record.blockSize) + '\n';
    out += "size " + std::to_string(record.size) + '\n';
    out += "fetch-limit " + std::to_string(record.fetchLimit) + '\n';
    out += "key ";
    AppendCounted(&out, record.key);
    out += "\nextra ";
    AppendCounted(&out, record.extra);
    out += "\nblocks " + record.blocks + '\n';
    return out;
}

bool DecodeEntryRecord(const std::string& text, EntryRecord* record) {
    Reader reader(text);
    EntryRecord parsed;
    std::string header;
    int64_t blockSize = 0;
    if (!reader.Line(&header) || header != kEntryHeader) return false;
    if (!reader.NumberField("block-size", &blockSize) || !ValidBlockSize(blockSize)) return false;
    parsed.blockSize = static_cast<uint32_t>(blockSize);
    if (!reader.NumberField("size", &parsed.size)) return false;
    if (!reader.NumberField("fetch-limit", &parsed.fetchLimit)) return false;
    if (!reader.CountedField("key", &parsed.key) || parsed.key.empty()) return false;
    if (!reader.CountedField("extra", &parsed.extra)) return false;
    if (!reader.Field("blocks", &parsed.blocks) || !reader.AtEnd()) return false;
    *record = std::move(parsed);
    return true;
}

std::string EncodeIndexRecord(const IndexRecord& record) {
    std::string out = std::string(kIndexHeader) + '\n';
    out += "block-size " + std::to_string(record.blockSize) + '\n';
    for (const IndexEntry& entry : record.entries) {
        out += "entry " + entry.name + ' ';
        AppendCounted(&out, entry.key);
        out += '\n';
    }
    return out;
}

bool DecodeIndexRecord(const std::string& text, IndexRecord* record) {
    Reader reader(text);
    IndexRecord parsed;
    std::string header;
    int64_t blockSize = 0;
    if (!reader.Line(&header) || header != kIndexHeader) return false;
    if (!reader.NumberField("block-size", &blockSize) || !ValidBlockSize(blockSize)) return false;
    parsed.blockSize = static_cast<uint32_t>(blockSize);
    while (!reader.AtEnd()) {
        IndexEntry entry;
        if (!reader.Word("entry") || !reader.Token(&entry.name) || !IsValidEntryName(entry.name) ||
            !reader.Counted(&entry.key) || entry.key.empty()) {
            return false;
        }
        parsed.entries.push_back(std::move(entry));
    }
    *record = std::move(parsed);
    return true;
}

bool IsValidEntryName(const std::string& name) {
    if (name.empty() || name.size() > 64) return false;
    return name.find_first_not_of("0123456789abcdef-") == std::string::npos;
}
