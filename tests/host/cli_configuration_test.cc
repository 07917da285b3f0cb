// The configuration text handed to Mount: the --config file with -o options
// merged in, and one-line errors for files that cannot be used.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "cli/configuration.h"

namespace {

Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string error;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &error)) << text;
    return value;
}

TEST(CliConfigurationTest, WithoutFileOnlyOptionsAreHanded) {
    std::string json = "stale";
    std::string error;
    ASSERT_TRUE(MergeConfiguration("", "", false, &json, &error));
    EXPECT_TRUE(json.empty());
    ASSERT_TRUE(MergeConfiguration("", "", true, &json, &error));
    EXPECT_EQ(ParseJson(json)["fuse"]["allow_other"], Json::Value(true));
}

TEST(CliConfigurationTest, FileIsKeptAndOptionsMergedIntoIt) {
    const std::string text = R"({"fs": {"timeout": 30000}, "fuse": {"debug": false}})";
    std::string json;
    std::string error;
    ASSERT_TRUE(MergeConfiguration(text, "/etc/v.json", false, &json, &error));
    EXPECT_EQ(json, text);

    ASSERT_TRUE(MergeConfiguration(text, "/etc/v.json", true, &json, &error)) << error;
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
        std::string error;
        EXPECT_FALSE(MergeConfiguration(text, "/etc/v.json", false, &json, &error)) << text;
        EXPECT_NE(error.find("/etc/v.json"), std::string::npos) << error;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
    std::string json;
    std::string error;
    EXPECT_FALSE(MergeConfiguration(R"({"fuse": true})", "/etc/v.json", true, &json, &error));
    EXPECT_NE(error.find("\"fuse\" must be a JSON object"), std::string::npos) << error;
}

TEST(CliConfigurationTest, ReadsTheFileAndReportsWhyItCannot) {
    char dir[] = "/tmp/cli_configuration_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/volume.json";
    std::ofstream(file) << R"({"fs": {"fetch": {"sync": 1000}}})";

    std::string json;
    std::string error;
    ASSERT_TRUE(BuildConfiguration(file, true, &json, &error)) << error;
    EXPECT_EQ(ParseJson(json)["fs"]["fetch"]["sync"].asInt(), 1000);
    EXPECT_EQ(ParseJson(json)["fuse"]["allow_other"], Json::Value(true));

    EXPECT_FALSE(BuildConfiguration(std::string(dir) + "/missing.json", false, &json, &error));
    EXPECT_NE(error.find("cannot read config file"), std::string::npos);
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    EXPECT_FALSE(BuildConfiguration(dir, false, &json, &error));
    EXPECT_NE(error.find("Is a directory"), std::string::npos) << error;

    unlink(file.c_str());
    rmdir(dir);
}

}  // namespace
