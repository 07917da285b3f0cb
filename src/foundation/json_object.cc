#include "foundation/json_object.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <locale>

#include "foundation/string_utils.h"

// Json::Reader and Json::FastWriter are deprecated in jsoncpp 1.9 but keep the
// parsing rules (lenient root, optional comment collection) and the compact
// output this wrapper relies on. The deprecation warning is silenced only
// around their uses.
#define LIBFS_BEGIN_JSONCPP_LEGACY \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wdeprecated-declarations\"")
#define LIBFS_END_JSONCPP_LEGACY _Pragma("GCC diagnostic pop")

namespace {

void ParseInto(const char* begin, const char* end, Json::Value& value, bool collectComments) {
    LIBFS_BEGIN_JSONCPP_LEGACY
    Json::Reader reader;
    const bool parsed = reader.parse(begin, end, value, collectComments);
    LIBFS_END_JSONCPP_LEGACY
    if (!parsed) {
        throw JSON_PARSE_FAILED;
    }
}

}  // namespace

JsonObject::JsonObject(const char* text, unsigned int length) : target_(&own_) {
    ParseInto(text, text + length, own_, false);
}

JsonObject::JsonObject(const char* text) : target_(&own_) {
    if (text != nullptr) {
        ParseInto(text, text + strlen(text), own_, true);
    }
}

JsonObject::JsonObject(Json::Value& value) : target_(&value) {}

JsonObject::JsonObject(const JsonObject& other) : target_(other.target_) {
    if (!other.own_.isNull()) {
        own_ = other.own_;
        target_ = &own_;
    }
}

JsonObject::~JsonObject() = default;

JsonObject JsonObject::GetEmptyObject() {
    return JsonObject("{}");
}

JsonObject JsonObject::Copy() {
    return JsonObject(*target_);
}

JsonObject::operator std::string() const {
    return std::string(target_->asString().c_str());
}

JsonObject::operator std::wstring() const {
    return s2ws(target_->asString());
}

JsonObject::operator unsigned long long() const {
    return static_cast<unsigned long long>(target_->asUInt64());
}

JsonObject::operator unsigned long() const {
    return static_cast<unsigned long>(target_->asUInt64());
}

JsonObject::operator long long() const {
    return static_cast<long long>(target_->asInt64());
}

JsonObject::operator long() const {
    return static_cast<long>(target_->asInt64());
}

JsonObject::operator int() const {
    return static_cast<int>(target_->asInt64());
}

JsonObject::operator AERROR() const {
    return static_cast<AERROR>(static_cast<int32_t>(target_->asInt64()));
}

JsonObject::operator double() const {
    return target_->asDouble();
}

JsonObject::operator bool() const {
    return target_->asBool();
}

JsonObject& JsonObject::operator=(std::string value) {
    *target_ = Json::Value(value);
    return *this;
}

JsonObject& JsonObject::operator=(const JsonObject& other) {
    // Json::Value copies before it swaps, so assigning a value that lives
    // inside this one is safe.
    *target_ = *other.target_;
    return *this;
}

JsonObject JsonObject::operator[](const char* key) {
    return JsonObject((*target_)[key]);
}

JsonObject JsonObject::operator[](int index) {
    return JsonObject((*target_)[index]);
}

namespace {

// The member `name` of `value`, or null when `value` is not an object or has
// no such member.
Json::Value* FindMember(Json::Value* value, const std::string& name) {
    if (!value->isObject()) {
        return nullptr;
    }
    const Json::Value* member = value->find(name.data(), name.data() + name.size());
    return const_cast<Json::Value*>(member);
}

}  // namespace

Json::Value* JsonObject::Walk(const char* path) const {
    Json::Value* current = target_;
    for (const std::string& segment : split(path, "/")) {
        // Leading, trailing and doubled slashes leave empty segments: skipped.
        if (segment.empty()) {
            continue;
        }
        current = FindMember(current, segment);
        if (current == nullptr) {
            return nullptr;
        }
    }
    return current;
}

JsonObject JsonObject::GetObject(const char* path) {
    Json::Value* found = Walk(path);
    if (found == nullptr) {
        throw ACCESS_VIOLATION;
    }
    return JsonObject(*found);
}

bool JsonObject::HasObject(const char* path) const {
    return Walk(path) != nullptr;
}

unsigned int JsonObject::GetArraySize() const {
    return target_->size();
}

std::vector<std::string> JsonObject::GetKeys() const {
    return target_->getMemberNames();
}

bool JsonObject::IsValid() const {
    return !target_->isNull();
}

bool JsonObject::IsArray() const {
    return target_->isArray();
}

bool JsonObject::Insert(const char* key, const JsonObject& value) {
    // Copy first: `value` may view this very object.
    Json::Value copy(*value.target_);
    (*target_)[key].swap(copy);
    return true;
}

bool JsonObject::Insert(const char* key, const std::wstring& value) {
    (*target_)[key] = Json::Value(ws2s(value));
    return true;
}

bool JsonObject::InsertArrayItem(std::string value) {
    target_->append(Json::Value(value));
    return true;
}

bool JsonObject::InsertArrayItem(JsonObject& value) {
    Json::Value copy(*value.target_);
    target_->append(copy);
    return true;
}

bool JsonObject::RemoveArrayItem(unsigned long index) {
    if (index >= target_->size()) {
        return false;
    }
    Json::Value removed;
    return target_->removeIndex(static_cast<Json::ArrayIndex>(index), &removed);
}

bool JsonObject::Remove(const char* key) {
    Json::Value removed;
    return target_->removeMember(key, &removed);
}

std::string JsonObject::ToText() const {
    LIBFS_BEGIN_JSONCPP_LEGACY
    Json::FastWriter writer;
    std::string text = writer.write(*target_);
    LIBFS_END_JSONCPP_LEGACY
    const std::locale& classic = std::locale::classic();
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(text[begin], classic)) {
        ++begin;
    }
    while (end > begin && std::isspace(text[end - 1], classic)) {
        --end;
    }
    return text.substr(begin, end - begin);
}
