#include "cli/configuration.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

// jsoncpp's messages span several lines; an error here is one line.
std::string OneLine(const std::string& text) {
    std::string line;
    bool space = false;
    for (const char c : text) {
        if (c == '\n' || c == '\r' || c == '\t' || c == ' ') {
            space = !line.empty();
            continue;
        }
        if (space) line += ' ';
        space = false;
        line += c;
    }
    return line;
}

}  // namespace

bool MergeConfiguration(const std::string& text, const std::string& origin, bool allowOther,
                        std::string* json, std::string* error) {
    json->clear();
    Json::Value root(Json::objectValue);
    if (!origin.empty()) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string problem;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &problem)) {
            *error = "config file " + origin + " is not valid JSON: " + OneLine(problem);
            return false;
        }
        if (!root.isObject()) {
            *error = "config file " + origin + " must hold a JSON object ({...})";
            return false;
        }
    }
    if (!allowOther) {
        if (!origin.empty()) *json = text;
        return true;
    }
    if (root.isMember("fuse") && !root["fuse"].isObject()) {
        *error = "config file " + origin + ": \"fuse\" must be a JSON object";
        return false;
    }
    root["fuse"]["allow_other"] = true;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    *json = Json::writeString(writer, root);
    return true;
}

bool BuildConfiguration(const std::string& configFile, bool allowOther, std::string* json,
                        std::string* error) {
    std::string text;
    if (!configFile.empty()) {
        auto fail = [&](int code) {
            *error = "cannot read config file " + configFile + ": " + strerror(code);
            return false;
        };
        const int fd = open(configFile.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return fail(errno);
        struct stat info {};
        if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            const int code = S_ISDIR(info.st_mode) ? EISDIR : errno;
            close(fd);
            return fail(code);
        }
        char buffer[16384];
        for (;;) {
            const ssize_t got = read(fd, buffer, sizeof(buffer));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                const int code = errno;
                close(fd);
                return fail(code);
            }
            if (got == 0) break;
            text.append(buffer, static_cast<size_t>(got));
        }
        close(fd);
    }
    return MergeConfiguration(text, configFile, allowOther, json, error);
}
