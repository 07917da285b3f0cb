// The skarvo command line: options in both spellings, remotes through the
// scheme table, defaults from the environment, sizes, and one-line errors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "cli/options.h"
#include "cli/remote_schemes.h"
#include "cli/sizes.h"

namespace {

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

TEST(CliOptionsTest, RelativePathsBecomeAbsolute) {
    const std::string cwd = std::filesystem::current_path().string();
    const MountOptions options =
        ParseMount({"mount", "--cache-dir", "cache/", "--log-file", "./s.log", "local:d", "mnt"});
    EXPECT_EQ(options.cacheDir, cwd + "/cache");
    EXPECT_EQ(options.logFile, cwd + "/s.log");
    EXPECT_EQ(options.remotes[0].location, "d");  // opened as given
}

TEST(CliOptionsTest, HelpAndVersionWinWhereverTheyStand) {
    EXPECT_EQ(Parse({"--help"}).action, CommandLine::Action::kHelp);
    EXPECT_EQ(Parse({"mount", "local:/a", "-h"}).action, CommandLine::Action::kHelp);
    EXPECT_EQ(Parse({"--bogus", "--version"}).action, CommandLine::Action::kVersion);
    EXPECT_EQ(Parse({"-V"}).action, CommandLine::Action::kVersion);
    // After "--" they are plain arguments.
    const MountOptions options = ParseMount({"mount", "--", "local:/a", "--help"});
    EXPECT_EQ(options.mountPoint, "--help");

    const std::string help = HelpText(kHomeOnly);
    for (const RemoteScheme& scheme : RemoteSchemes()) {
        EXPECT_NE(help.find(std::string(scheme.name) + ":" + scheme.location), std::string::npos);
    }
    for (const char* option : {"--cache-dir", "--cache-max-size", "--read-only", "--config", "-o",
                               "--on-upload-failure", "--upload-retries", "--volname"}) {
        EXPECT_NE(help.find(option), std::string::npos) << option;
    }
    EXPECT_NE(help.find("/home/ann/.cache/skarvo"), std::string::npos);
    size_t start = 0;
    for (size_t end; (end = help.find('\n', start)) != std::string::npos; start = end + 1) {
        EXPECT_LT(end - start, 80u) << help.substr(start, end - start);
    }
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
    };
    for (const auto& [args, expected] : cases) {
        EXPECT_NE(ParseError(args).find(expected), std::string::npos) << expected;
    }
}

TEST(CliOptionsTest, RemotesGoThroughTheSchemeTable) {
    RemoteArgument argument;
    std::string error;
    ASSERT_TRUE(ParseRemote("local:/srv/a:b", &argument, &error));
    EXPECT_EQ(argument.scheme, FindRemoteScheme("local"));
    EXPECT_EQ(argument.location, "/srv/a:b");

    EXPECT_FALSE(ParseRemote("/srv/data", &argument, &error));
    EXPECT_NE(error.find("SCHEME:LOCATION"), std::string::npos);
    EXPECT_FALSE(ParseRemote("ftp:/x", &argument, &error));
    EXPECT_NE(error.find("unknown remote kind 'ftp'"), std::string::npos);
    EXPECT_NE(error.find("local"), std::string::npos);  // names the known kinds
    EXPECT_FALSE(ParseRemote("local:", &argument, &error));
    EXPECT_FALSE(ParseRemote("LOCAL:/x", &argument, &error));

    // Opening reports the remote's own problem.
    ASSERT_TRUE(ParseRemote("local:/nonexistent/skarvo-remote", &argument, &error));
    const OpenedRemote missing = OpenRemote(argument, RemoteOptions(), &error);
    EXPECT_EQ(missing.protocol, nullptr);
    EXPECT_NE(error.find("does not exist"), std::string::npos) << error;

    char dir[] = "/tmp/cli_options_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ASSERT_TRUE(ParseRemote(std::string("local:") + dir, &argument, &error));
    const OpenedRemote opened = OpenRemote(argument, RemoteOptions(), &error);
    ASSERT_NE(opened.protocol, nullptr) << error;
    EXPECT_EQ(opened.localFolder, std::filesystem::canonical(dir).string());
    rmdir(dir);
}

TEST(CliOptionsTest, VolumeNameComesFromTheRemote) {
    EXPECT_EQ(VolumeNameFromIdentity("local:/srv/data"), "data");
    EXPECT_EQ(VolumeNameFromIdentity("local:/srv/data/"), "data");
    EXPECT_EQ(VolumeNameFromIdentity("local:/"), "local");
    EXPECT_EQ(VolumeNameFromIdentity(""), "skarvo");
}

TEST(CliSizesTest, ParsesSuffixesInAnyCase) {
    const std::pair<const char*, uint64_t> good[] = {
        {"4096", 4096},       {"100k", 100ull << 10}, {"512M", 512ull << 20},
        {"10G", 10ull << 30}, {"10gib", 10ull << 30}, {"2TB", 2ull << 40},
        {"1.5G", 3ull << 29}, {"0.5k", 512},
    };
    for (const auto& [text, expected] : good) {
        uint64_t bytes = 0;
        std::string error;
        EXPECT_TRUE(ParseSize(text, &bytes, &error)) << text << ": " << error;
        EXPECT_EQ(bytes, expected) << text;
    }
    for (const char* text : {"", "G", "-1G", "10X", "10GG", "1.5.5G", "10 G", "16383P",
                             "99999999999999999999", "20000000T"}) {
        uint64_t bytes = 7;
        std::string error;
        EXPECT_FALSE(ParseSize(text, &bytes, &error)) << text;
        EXPECT_EQ(bytes, 7u) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(CliSizesTest, FormatsBinaryUnits) {
    EXPECT_EQ(FormatBytes(0), "0 B");
    EXPECT_EQ(FormatBytes(1023), "1023 B");
    EXPECT_EQ(FormatBytes(1536), "1.5 KiB");
    EXPECT_EQ(FormatBytes((1ull << 20) - 10), "1.0 MiB");
    EXPECT_EQ(FormatBytes(1288490189), "1.2 GiB");
    EXPECT_EQ(FormatBytes(3ull << 40), "3.0 TiB");
}

}  // namespace
