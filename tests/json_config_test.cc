// JSON documents and settings of foundation/: errors, views against copies,
// narrowing conversions, and settings texts that hold only part of the values.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "foundation/config.h"
#include "foundation/json_object.h"
#include "libfilesystem/aerror.h"

namespace {

template <typename Action>
AERROR ThrownCode(Action action) {
    try {
        action();
    } catch (AERROR code) {
        return code;
    }
    return SUCCESS;
}

TEST(JsonObjectTest, ParsingPathsAndConversions) {
    EXPECT_EQ(ThrownCode([] { JsonObject object("{bad"); }), JSON_PARSE_FAILED);
    const char text[] = "{\"a\":1}garbage";  // the length form reads exactly that many bytes
    EXPECT_EQ(JsonObject(text, 7).ToText(), "{\"a\":1}");
    EXPECT_EQ(ThrownCode([&] { JsonObject cut(text, 4); }), JSON_PARSE_FAILED);

    JsonObject document(
        "{\"a\":{\"b\":1},\"list\":[1],\"big\":4294967296,\"nul\":\"ab\\u0000cd\"}");
    EXPECT_EQ(static_cast<int>(document.GetObject("/a//b/")), 1);
    EXPECT_EQ(ThrownCode([&] { document.GetObject("a/b/c"); }), ACCESS_VIOLATION);
    EXPECT_EQ(ThrownCode([&] { document.GetObject("list/0"); }), ACCESS_VIOLATION);
    EXPECT_FALSE(document.HasObject("a/x"));
    EXPECT_EQ(static_cast<long>(document["big"]), 4294967296L);
    EXPECT_EQ(static_cast<int>(document["big"]), 0);             // wraps instead of throwing
    EXPECT_EQ(static_cast<std::string>(document["nul"]), "ab");  // ends at the NUL
    EXPECT_THROW(static_cast<int>(document["nul"]), std::exception);
    // Lookups create nothing.
    EXPECT_EQ(document.ToText(),
              "{\"a\":{\"b\":1},\"big\":4294967296,\"list\":[1],\"nul\":\"ab\\u0000cd\"}");
}

TEST(ConfigTest, ParseUpdatesOnlyWhatTheTextHoldsAndBrokenTextChangesNothing) {
    Config config;
    config.AddConfiguration("fstimeout", "/fs/timeout", "20000");
    config.AddConfiguration("interval", "/fs/interval", "100");
    config.Parse("{\"fs\":{\"timeout\":\"45000\",\"interval\":250}}");
    config.Parse("{\"fs\":{\"interval\":\"5\"}}");
    config.Parse("");
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    EXPECT_EQ(config.GetValue("interval"), "5");
    EXPECT_EQ(ThrownCode([&] { config.Parse("{\"fs\":{\"timeout\":\"1\""); }), JSON_PARSE_FAILED);
    EXPECT_THROW(config.Parse("{\"fs\":{\"timeout\":\"1\",\"interval\":{}}}"), std::exception);
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    // An unknown key gets an empty entry whose empty path names the whole text.
    EXPECT_EQ(config.GetValue("unknown"), "");
    config.Parse("\"whole\"");
    EXPECT_EQ(config.GetValue("unknown"), "whole");
}

}  // namespace
