// Config: the named settings of a file system, and a reader for INI-style
// text files.
#ifndef LIBFILESYSTEM_FOUNDATION_CONFIG_H_
#define LIBFILESYSTEM_FOUNDATION_CONFIG_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

// One registered setting.
struct _CONFIGURATION {
    std::string path;          // "/"-separated path into a JSON document
    std::string value;         // current value
    std::string defaultValue;  // value given at registration
};

// Settings are registered with a key, the JSON path at which they may appear
// and a default. A JSON text handed to Parse() updates every registered
// setting it contains; settings it lacks keep their current value. All
// operations are safe to call from several threads.
class Config {
  public:
    Config();
    explicit Config(std::string text);
    virtual ~Config();

    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // Registers `key`, or replaces an earlier registration (value included).
    void AddConfiguration(std::string key, std::string path, std::string defaultValue);
    // Takes the value of every registered setting that `text` holds at the
    // setting's path. An empty text does nothing. Text that is not valid JSON
    // throws JSON_PARSE_FAILED (a bare AERROR) and changes nothing; a value
    // that jsoncpp cannot turn into text (an object or array) lets jsoncpp's
    // exception through, also without changing anything.
    void Parse(std::string text);
    // The current value of `key`. An unregistered key is added as an empty
    // entry and yields "".
    std::string GetValue(std::string key);

  private:
    std::mutex mutex_;
    std::unordered_map<std::string, _CONFIGURATION> table_;
};

// Reads `key` from section `section` of the text file `fileName`, made of
// "[section]" header lines and "key=value" lines. On success copies the value
// to `out` and returns 1; otherwise copies `defaultValue` and returns 0. Blanks
// around header lines, keys and values and the line end are not part of them.
// At most size - 1 bytes and a terminating NUL are written to `out`.
int GetPrivateProfileString(const char* section, const char* key, const char* defaultValue,
                            char* out, size_t size, const char* fileName);

#endif  // LIBFILESYSTEM_FOUNDATION_CONFIG_H_
