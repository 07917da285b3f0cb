#include "cli/configuration.h"

#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "libfilesystem/unique_fd.h"

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

Status MergeConfiguration(const std::string& text, const std::string& origin, bool allowOther,
                          std::string* json) {
    json->clear();
    Json::Value root(Json::objectValue);
    if (!origin.empty()) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string problem;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &problem)) {
            return Status::Error("config file " + origin +
                                 " is not valid JSON: " + OneLine(problem));
        }
        if (!root.isObject()) {
            return Status::Error("config file " + origin + " must hold a JSON object ({...})");
        }
    }
    if (!allowOther) {
        if (!origin.empty()) *json = text;
        return Status::Ok();
    }
    if (root.isMember("fuse") && !root["fuse"].isObject()) {
        return Status::Error("config file " + origin + ": \"fuse\" must be a JSON object");
    }
    root["fuse"]["allow_other"] = true;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    *json = Json::writeString(writer, root);
    return Status::Ok();
}

Status BuildConfiguration(const std::string& configFile, bool allowOther, std::string* json) {
    std::string text;
    if (!configFile.empty()) {
        auto fail = [&](int code) {
            return Status::Error("cannot read config file " + configFile + ": " + strerror(code));
        };
        const UniqueFd fd(open(configFile.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.Valid()) return fail(errno);
        struct stat info {};
        if (fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) {
            return fail(S_ISDIR(info.st_mode) ? EISDIR : errno);
        }
        char buffer[16384];
        for (;;) {
            const ssize_t got = read(fd.Get(), buffer, sizeof(buffer));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return fail(errno);
            if (got == 0) break;
            text.append(buffer, static_cast<size_t>(got));
        }
    }
    return MergeConfiguration(text, configFile, allowOther, json);
}
