// JsonObject: the library's handle on JSON data.
//
// A JsonObject either owns a Json::Value or is a view onto a value that lives
// inside another JsonObject. Lookups return views, so a change made through a
// view changes the document it came from. A view must not outlive the object
// it looks into.
//
// The text constructors throw JSON_PARSE_FAILED and GetObject throws
// ACCESS_VIOLATION, both as bare AERROR values. Conversions use jsoncpp's own
// rules, and its exceptions for a value of the wrong type pass through.
#ifndef LIBFILESYSTEM_FOUNDATION_JSON_OBJECT_H_
#define LIBFILESYSTEM_FOUNDATION_JSON_OBJECT_H_

#include <json/value.h>

#include <string>
#include <vector>

#include "libfilesystem/aerror.h"

class JsonObject {
  public:
    // Parses exactly `length` bytes of `text`, without collecting comments.
    JsonObject(const char* text, unsigned int length);
    // Parses the C string `text` (comments collected); a null `text` gives an
    // owning object whose value is null.
    explicit JsonObject(const char* text);
    // A view onto `value`; nothing is copied.
    explicit JsonObject(Json::Value& value);
    // Deep-copies an object that owns a non-null value; otherwise becomes a
    // view onto the same value as `other`.
    JsonObject(const JsonObject& other);
    virtual ~JsonObject();

    // An owning object holding an empty JSON object.
    static JsonObject GetEmptyObject();
    // A view onto the same value (no data is duplicated).
    JsonObject Copy();

    // Conversions of the viewed value. The string conversion stops at the
    // first NUL; the wide one decodes UTF-8. long, int and AERROR are read as
    // a signed 64-bit number and cut to their width, so they wrap rather than
    // raise jsoncpp's range error.
    operator std::string() const;
    operator std::wstring() const;
    operator unsigned long long() const;
    operator unsigned long() const;
    operator long long() const;
    operator long() const;
    operator int() const;
    operator AERROR() const;
    operator double() const;
    operator bool() const;

    // Replace the viewed value (in place, so views onto it see the change).
    JsonObject& operator=(std::string value);
    JsonObject& operator=(const JsonObject& other);

    // Views onto a member or an element; a missing one is created as null.
    JsonObject operator[](const char* key);
    JsonObject operator[](int index);

    // Walks a "/"-separated path of member names (empty segments are skipped)
    // and returns a view onto the value reached; an empty path gives a view
    // onto this value. Throws ACCESS_VIOLATION at the first missing member.
    JsonObject GetObject(const char* path);
    // The same walk; false at the first missing member. Never throws.
    bool HasObject(const char* path) const;

    unsigned int GetArraySize() const;
    std::vector<std::string> GetKeys() const;
    // True unless the value is null.
    bool IsValid() const;
    bool IsArray() const;

    // Each stores a copy and returns true.
    bool Insert(const char* key, const JsonObject& value);
    bool Insert(const char* key, const std::wstring& value);
    bool InsertArrayItem(std::string value);
    bool InsertArrayItem(JsonObject& value);
    // False when there is nothing to remove (or the value is of another kind).
    bool RemoveArrayItem(unsigned long index);
    bool Remove(const char* key);

    // Compact text of the value without surrounding white space.
    std::string ToText() const;

  private:
    // The value at a "/"-separated path below the target, or null when a
    // member on the way is missing.
    Json::Value* Walk(const char* path) const;

    // The value every operation works on: &own_ for an owning object, a value
    // inside another object for a view.
    Json::Value* target_;
    // Null unless this object owns its data.
    Json::Value own_;
};

#endif  // LIBFILESYSTEM_FOUNDATION_JSON_OBJECT_H_
