#include "foundation/config.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "foundation/json_object.h"
#include "foundation/string_utils.h"

Config::Config() {
    table_.max_load_factor(1.0f);
}

Config::Config(std::string text) : Config() {
    Parse(std::move(text));
}

Config::~Config() = default;

void Config::AddConfiguration(std::string key, std::string path, std::string defaultValue) {
    std::lock_guard<std::mutex> lock(mutex_);
    _CONFIGURATION& entry = table_[key];
    entry.path = std::move(path);
    entry.value = defaultValue;
    entry.defaultValue = std::move(defaultValue);
}

void Config::Parse(std::string text) {
    if (text.empty()) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    // Throws JSON_PARSE_FAILED before anything is touched.
    auto document = std::make_shared<JsonObject>(text.c_str());

    // Collect every new value first and apply them together, so that a value
    // that cannot be converted leaves the whole table as it was.
    std::vector<std::pair<_CONFIGURATION*, std::string>> updates;
    for (auto& item : table_) {
        _CONFIGURATION& entry = item.second;
        const char* path = entry.path.c_str();
        if (document->HasObject(path)) {
            std::string value = document->GetObject(path);
            updates.emplace_back(&entry, std::move(value));
        }
    }
    for (auto& update : updates) {
        update.first->value = std::move(update.second);
    }
}

std::string Config::GetValue(std::string key) {
    std::lock_guard<std::mutex> lock(mutex_);
    return table_[key].value;
}

namespace {

// Copies `text` into `out`, cut to fit `size` bytes with the terminating NUL.
void CopyOut(const char* text, char* out, size_t size) {
    if (out == nullptr || size == 0) {
        return;
    }
    if (text == nullptr) {
        text = "";
    }
    size_t length = strlen(text);
    if (length >= size) {
        length = size - 1;
    }
    memmove(out, text, length);
    out[length] = '\0';
}

// Removes the line end and surrounding blanks of `line` in place.
void TrimLine(char* line) {
    size_t length = strlen(line);
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) {
        line[--length] = '\0';
    }
    strip(line, line);
}

}  // namespace

int GetPrivateProfileString(const char* section, const char* key, const char* defaultValue,
                            char* out, size_t size, const char* fileName) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(fileName, "r"), fclose);
    if (!file) {
        CopyOut(defaultValue, out, size);
        return 0;
    }
    const std::string header = string_format("[%s]", section);
    char line[2048];
    bool inSection = false;
    while (fgets(line, sizeof(line), file.get()) != nullptr) {
        TrimLine(line);
        if (!inSection) {
            inSection = (header == line);
            continue;
        }
        if (line[0] == '[') {
            break;  // the next section begins
        }
        char* equals = strchr(line, '=');
        if (equals == nullptr) {
            continue;
        }
        *equals = '\0';
        strip(line, line);
        if (strcmp(line, key) == 0) {
            char* value = equals + 1;
            strip(value, value);
            CopyOut(value, out, size);
            return 1;
        }
    }
    CopyOut(defaultValue, out, size);
    return 0;
}
