// The skarvo command line and what it names: first the options, then named
// remotes from remotes.conf, then the configuration text handed to Mount.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/configuration.h"
#include "cli/named_remotes.h"
#include "cli/options.h"
#include "cli/remote_schemes.h"
#include "support/test_env.h"

namespace {

// The skarvo command line: options in both spellings, remotes through the
// scheme table, defaults from the environment, and one-line errors.

EnvLookup FakeEnv(std::map<std::string, std::string> values) {
    auto stored = std::make_shared<std::map<std::string, std::string>>(std::move(values));
    return [stored](const char* name) -> const char* {
        auto found = stored->find(name);
        return found == stored->end() ? nullptr : found->second.c_str();
    };
}

const EnvLookup kHomeOnly = FakeEnv({{"HOME", "/home/ann"}});

CommandLine Parse(const std::vector<std::string>& args, const EnvLookup& env = kHomeOnly) {
    return ParseCommandLine(args, env);
}

MountOptions ParseMount(const std::vector<std::string>& args) {
    const CommandLine line = Parse(args);
    EXPECT_EQ(line.action, CommandLine::Action::kMount) << line.error;
    return line.mount;
}

std::string ParseError(const std::vector<std::string>& args) {
    const CommandLine line = Parse(args);
    EXPECT_EQ(line.action, CommandLine::Action::kError);
    EXPECT_EQ(line.error.find('\n'), std::string::npos) << "one line: " << line.error;
    return line.error;
}

TEST(CliOptionsTest, DefaultsFollowTheEnvironment) {
    const MountOptions options = ParseMount({"mount", "local:/srv/data", "/mnt/data"});
    ASSERT_EQ(options.remotes.size(), 1u);
    EXPECT_STREQ(options.remotes[0].scheme->name, "local");
    EXPECT_EQ(options.remotes[0].location, "/srv/data");
    EXPECT_EQ(options.mountPoint, "/mnt/data");
    EXPECT_EQ(options.cacheDir, "/home/ann/.cache/skarvo");
    EXPECT_EQ(options.upload.recoveryDir, "/home/ann/.cache/skarvo/recovered");
    EXPECT_EQ(options.cacheMaxBytes, uint64_t{10} << 30);
    EXPECT_EQ(options.logLevel, LL_WARNING);
    EXPECT_EQ(options.upload.action, UploadFailureAction::kRetry);
    EXPECT_EQ(options.upload.retries, 5);
    EXPECT_EQ(MountTypeFor(options), MT_DEFAULT);
    EXPECT_TRUE(options.configFile.empty());
    EXPECT_FALSE(options.allowOther);

    EXPECT_EQ(DefaultCacheDir(FakeEnv({{"XDG_CACHE_HOME", "/var/c/"}, {"HOME", "/h"}})),
              "/var/c/skarvo");
    // A relative XDG_CACHE_HOME is ignored.
    EXPECT_EQ(DefaultCacheDir(FakeEnv({{"XDG_CACHE_HOME", "rel"}, {"HOME", "/h"}})),
              "/h/.cache/skarvo");
}

TEST(CliOptionsTest, EveryOptionInBothSpellings) {
    const MountOptions options = ParseMount({"mount",
                                             "--cache-dir",
                                             "/c",
                                             "--cache-max-size=512m",
                                             "--read-only",
                                             "--no-async-upload",
                                             "--realtime-upload",
                                             "--config=/etc/v.json",
                                             "-o",
                                             "allow_other",
                                             "--log-level",
                                             "DEBUG",
                                             "--log-file=/var/log/s.log",
                                             "--on-upload-failure",
                                             "cancel",
                                             "--upload-retries=0",
                                             "--volname",
                                             "Team Drive",
                                             "local:/a",
                                             "local:/b",
                                             "/mnt/x"});
    EXPECT_EQ(options.cacheDir, "/c");
    EXPECT_EQ(options.upload.recoveryDir, "/c/recovered");
    EXPECT_EQ(options.cacheMaxBytes, uint64_t{512} << 20);
    EXPECT_EQ(MountTypeFor(options), MT_READ_ONLY | MT_NO_ASYNC_UPLOAD | MT_REALTIME_UPLOAD);
    EXPECT_EQ(options.configFile, "/etc/v.json");
    EXPECT_TRUE(options.allowOther);
    EXPECT_EQ(options.logLevel, LL_DEBUG);
    EXPECT_EQ(options.logFile, "/var/log/s.log");
    EXPECT_EQ(options.upload.action, UploadFailureAction::kCancel);
    EXPECT_EQ(options.upload.retries, 0);
    EXPECT_EQ(options.volumeName, "Team Drive");
    ASSERT_EQ(options.remotes.size(), 2u);
    EXPECT_EQ(options.remotes[1].text, "local:/b");
    EXPECT_EQ(options.mountPoint, "/mnt/x");

    EXPECT_TRUE(ParseMount({"mount", "-oallow_other", "local:/a", "/m"}).allowOther);
    const MountOptions both = ParseMount({"mount", "-o", "allow_other,ro", "local:/a", "/m"});
    EXPECT_TRUE(both.allowOther);
    EXPECT_TRUE(both.readOnly);
    EXPECT_EQ(ParseMount({"mount", "local:/a", "/m", "--recovery-dir", "/r"}).upload.recoveryDir,
              "/r");
}

// How mount(8) runs the helper of an /etc/fstab line: SOURCE MOUNTPOINT -o
// with the long options as NAME=VALUE among the generic mount options.
TEST(CliOptionsTest, FstabFormGoesToTheBackground) {
    const CommandLine line = Parse({"local:/srv/data", "/mnt/data", "-o",
                                    "rw,dev,suid,cache-max-size=2G,read-only,log-level=info"});
    ASSERT_EQ(line.action, CommandLine::Action::kMount) << line.error;
    EXPECT_TRUE(line.mountHelper);
    EXPECT_TRUE(line.mount.daemon);
    EXPECT_EQ(line.mount.cacheMaxBytes, uint64_t{2} << 30);
    EXPECT_TRUE(line.mount.readOnly);
    EXPECT_EQ(line.mount.logLevel, LL_INFO);
    EXPECT_EQ(line.mount.mountPoint, "/mnt/data");

    const MountOptions named = ParseMount({"mount", "--daemon", "nas:", "local:/b", "/m"});
    EXPECT_TRUE(named.daemon);
    EXPECT_EQ(named.remotes[0].name, "nas");
    EXPECT_EQ(named.remotes[0].scheme, nullptr);
    EXPECT_EQ(Parse({"remotes"}).action, CommandLine::Action::kRemotes);
}

TEST(CliOptionsTest, RelativePathsBecomeAbsolute) {
    const std::string cwd = std::filesystem::current_path().string();
    const MountOptions options =
        ParseMount({"mount", "--cache-dir", "cache/", "--log-file", "./s.log", "local:d", "mnt"});
    EXPECT_EQ(options.cacheDir, cwd + "/cache");
    EXPECT_EQ(options.logFile, cwd + "/s.log");
    EXPECT_EQ(options.remotes[0].location, "d");  // opened as given
}

TEST(CliOptionsTest, WrongArgumentsGiveOneLine) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "no command"},
        {{"umount", "/m"}, "unknown command 'umount'"},
        {{"mount", "/m"}, "at least one REMOTE"},
        {{"mount", "--frobnicate", "local:/a", "/m"}, "--frobnicate"},
        {{"mount", "local:/a", "/m", "--cache-dir"}, "needs a value"},
        {{"mount", "--read-only=yes", "local:/a", "/m"}, "takes no value"},
        {{"mount", "-o", "allow_root", "local:/a", "/m"}, "allow_root"},
        {{"mount", "--log-level", "loud", "local:/a", "/m"}, "loud"},
        {{"mount", "--on-upload-failure", "ignore", "local:/a", "/m"}, "retry, save or cancel"},
        {{"mount", "--upload-retries", "-1", "local:/a", "/m"}, "--upload-retries"},
        {{"mount", "--upload-retries", "101", "local:/a", "/m"}, "--upload-retries"},
        {{"mount", "--upload-retries", "2x", "local:/a", "/m"}, "--upload-retries"},
        {{"mount", "--cache-max-size", "0", "local:/a", "/m"}, "more than 0"},
        {{"mount", "--volname=", "local:/a", "/m"}, "empty"},
        {{"mount", "nfs:/x", "/m"}, "nfs"},
        {{"local:/a", "/m", "-o", "cache-max-size"}, "-o cache-max-size needs a value"},
        {{"local:/a", "/m", "-o", "read-only=yes"}, "-o read-only takes no value"},
        {{"local:/a", "/m", "-o", "o=ro"}, "unknown -o option 'o=ro'"},
        {{"remotes", "x"}, "no arguments"},
    };
    for (const auto& [args, expected] : cases) {
        EXPECT_NE(ParseError(args).find(expected), std::string::npos) << expected;
    }
}

TEST(CliOptionsTest, RemotesGoThroughTheSchemeTable) {
    RemoteArgument argument;
    Status status = ParseRemote("local:/srv/a:b", &argument);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(argument.scheme, FindRemoteScheme("local"));
    EXPECT_EQ(argument.location, "/srv/a:b");

    status = ParseRemote("/srv/data", &argument);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("SCHEME:LOCATION"), std::string::npos);
    status = ParseRemote("ftp:/x", &argument);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("unknown remote kind 'ftp'"), std::string::npos);
    EXPECT_NE(status.message().find("local"), std::string::npos);  // names the known kinds
    status = ParseRemote("local:", &argument);
    EXPECT_FALSE(status.ok());
    status = ParseRemote("LOCAL:/x", &argument);
    EXPECT_FALSE(status.ok());

    // Opening reports the remote's own problem.
    status = ParseRemote("local:/nonexistent/skarvo-remote", &argument);
    ASSERT_TRUE(status.ok());
    OpenedRemote missing;
    status = OpenRemote(argument, RemoteOptions(), &missing);
    EXPECT_EQ(missing.protocol, nullptr);
    EXPECT_NE(status.message().find("does not exist"), std::string::npos) << status.message();
    // The WebDAV module lives beside skarvo, not beside this test.
    ASSERT_TRUE(ParseRemote("webdav://127.0.0.1:1/dav", &argument).ok());
    status = OpenRemote(argument, RemoteOptions(), &missing);
    EXPECT_NE(status.message().find("WebDAV support cannot be loaded"), std::string::npos)
        << status.message();

    TempDir dir;
    status = ParseRemote("local:" + dir.path(), &argument);
    ASSERT_TRUE(status.ok());
    OpenedRemote opened;
    status = OpenRemote(argument, RemoteOptions(), &opened);
    ASSERT_NE(opened.protocol, nullptr) << status.message();
    EXPECT_EQ(opened.localFolder, std::filesystem::canonical(dir.path()).string());
}

// remotes.conf: a named remote becomes its remote with its options under the
// command line's; a file with a line it does not understand, or passwords
// that others may read, is refused with one line naming the place.

class CliNamedRemotesTest : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(home_ + "/skarvo");
        env_ = [this](const char* name) -> const char* {
            return std::string(name) == "XDG_CONFIG_HOME" ? home_.c_str() : nullptr;
        };
    }

    void Write(const std::string& text, mode_t mode = 0600) {
        const std::string path = home_ + "/skarvo/remotes.conf";
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }
    CommandLine Resolve(const std::vector<std::string>& args, std::string* error) {
        CommandLine line = ParseCommandLine(args, env_);
        EXPECT_EQ(line.action, CommandLine::Action::kMount) << line.error;
        const Status resolved = ResolveNamedRemotes(args, env_, &line);
        *error = resolved.message();
        if (!resolved.ok()) line.action = CommandLine::Action::kError;
        return line;
    }

    TempDir dir_;
    const std::string home_ = dir_.path();
    EnvLookup env_;
};

TEST_F(CliNamedRemotesTest, NamedRemoteBringsItsAddressPasswordAndOptions) {
    Write(
        "# shares\n[nas]\ntype = webdav\nurl = https://nas.example.org/files\nuser = alice\n"
        "password = s3cret\ncache-max-size = 2G\nread-only = true\n\n[photos]\n"
        "type = local\npath = /srv/photos\n");
    std::string error;
    const CommandLine line =
        Resolve({"mount", "--cache-max-size=1G", "nas:", "photos:", "/m"}, &error);
    ASSERT_EQ(line.action, CommandLine::Action::kMount) << error;
    EXPECT_EQ(line.mount.remotes[0].text, "webdavs://alice@nas.example.org/files");
    EXPECT_EQ(line.mount.remotes[0].password, "s3cret");
    EXPECT_EQ(line.mount.remotes[1].text, "local:/srv/photos");
    EXPECT_TRUE(line.mount.readOnly);
    EXPECT_EQ(line.mount.cacheMaxBytes, uint64_t{1} << 30);  // the command line wins

    RemotesFile file;
    const Status read = ReadRemotesFile(home_ + "/skarvo/remotes.conf", &file);
    ASSERT_TRUE(read.ok()) << read.message();
    const std::string listed = ListRemotes(file);
    EXPECT_NE(listed.find("nas:"), std::string::npos);
    EXPECT_EQ(listed.find("s3cret"), std::string::npos);
}

TEST_F(CliNamedRemotesTest, RefusalsNameTheFileAndLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"type = local\n", "remotes.conf:1: type stands before the first [NAME]"},
        {"[nas]\ntype = local\npath /x\n", "remotes.conf:3: expected [NAME] or KEY"},
        {"[nas]\ntype = local\ncolour = red\n", "remotes.conf:3: unknown key 'colour'"},
        {"[nas]\ntype = local\npath = /a\npath = /b\n", "remotes.conf:4: path is given twice"},
        {"[nas]\ntype = ftp\n", "remotes.conf:1: [nas]: type must be local or webdav"},
        {"[local]\n", "remotes.conf:1: 'local' cannot name a remote"},
        {"[other]\ntype = local\npath = /a\n", "no remote named 'nas'"},
    };
    for (const auto& [text, expected] : cases) {
        Write(text);
        std::string error;
        Resolve({"mount", "nas:", "/m"}, &error);
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
    Write("[nas]\ntype = local\npath = /a\npassword = x\n", 0644);
    std::string error;
    EXPECT_EQ(Resolve({"mount", "nas:", "/m"}, &error).action, CommandLine::Action::kError);
    EXPECT_NE(error.find("chmod 600 " + home_ + "/skarvo/remotes.conf"), std::string::npos);
}

// The configuration text handed to Mount: the --config file with -o options
// merged in, and one-line errors for files that cannot be used.

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string error;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &error)) << text;
    return value;
}

TEST(CliConfigurationTest, OptionsAreMergedIntoTheFileOrStandAlone) {
    std::string json = "stale";
    Status status = MergeConfiguration("", "", false, &json);
    ASSERT_TRUE(status.ok());
    EXPECT_TRUE(json.empty());
    status = MergeConfiguration("", "", true, &json);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(ParseJson(json)["fuse"]["allow_other"], Json::Value(true));

    const std::string text = R"({"fs": {"timeout": 30000}, "fuse": {"debug": false}})";
    status = MergeConfiguration(text, "/etc/v.json", false, &json);
    ASSERT_TRUE(status.ok());
    EXPECT_EQ(json, text);
    status = MergeConfiguration(text, "/etc/v.json", true, &json);
    ASSERT_TRUE(status.ok()) << status.message();
    const Json::Value merged = ParseJson(json);
    EXPECT_EQ(merged["fs"]["timeout"].asInt(), 30000);
    EXPECT_EQ(merged["fuse"]["debug"], Json::Value(false));
    EXPECT_EQ(merged["fuse"]["allow_other"], Json::Value(true));
}

TEST(CliConfigurationTest, UnusableTextIsOneLineNamingTheFile) {
    const std::pair<const char*, const char*> cases[] = {
        {"{\"fs\": ", "not valid JSON"},
        {"[1, 2]", "JSON object"},
        {"", "not valid JSON"},
    };
    for (const auto& [text, expected] : cases) {
        std::string json;
        Status status = MergeConfiguration(text, "/etc/v.json", false, &json);
        EXPECT_FALSE(status.ok()) << text;
        EXPECT_NE(status.message().find("/etc/v.json"), std::string::npos) << status.message();
        EXPECT_NE(status.message().find(expected), std::string::npos) << status.message();
        EXPECT_EQ(status.message().find('\n'), std::string::npos) << status.message();
    }
    std::string json;
    Status status = MergeConfiguration(R"({"fuse": true})", "/etc/v.json", true, &json);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("\"fuse\" must be a JSON object"), std::string::npos)
        << status.message();
}

TEST(CliConfigurationTest, ReadsTheFileAndReportsWhyItCannot) {
    TempDir dir;
    const std::string file = dir / "volume.json";
    std::ofstream(file) << R"({"fs": {"fetch": {"sync": 1000}}})";

    std::string json;
    Status status = BuildConfiguration(file, true, &json);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(ParseJson(json)["fs"]["fetch"]["sync"].asInt(), 1000);
    EXPECT_EQ(ParseJson(json)["fuse"]["allow_other"], Json::Value(true));

    status = BuildConfiguration(dir / "missing.json", false, &json);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("cannot read config file"), std::string::npos);
    EXPECT_NE(status.message().find("No such file"), std::string::npos) << status.message();
    status = BuildConfiguration(dir.path(), false, &json);
    EXPECT_FALSE(status.ok());
    EXPECT_NE(status.message().find("Is a directory"), std::string::npos) << status.message();
}

}  // namespace
