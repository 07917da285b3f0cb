#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "foundation/config.h"
#include "foundation/json_object.h"
#include "libfilesystem/aerror.h"

namespace {

// The AERROR that `action` throws, or SUCCESS when it throws none.
template <typename Action>
AERROR ThrownCode(Action action) {
    try {
        action();
    } catch (AERROR code) {
        return code;
    }
    return SUCCESS;
}

TEST(JsonObjectTest, ParsingAndText) {
    EXPECT_EQ(ThrownCode([] { JsonObject object("{bad"); }), JSON_PARSE_FAILED);
    // The length form reads exactly that many bytes.
    const char text[] = "{\"a\":1}garbage";
    EXPECT_EQ(JsonObject(text, 7).ToText(), "{\"a\":1}");
    EXPECT_EQ(ThrownCode([&] { JsonObject cut(text, 4); }), JSON_PARSE_FAILED);

    EXPECT_EQ(JsonObject("// note\n { \"a\" : [ 1 , 2 ] } ").ToText(), "{\"a\":[1,2]}");
    EXPECT_FALSE(JsonObject(nullptr).IsValid());
    EXPECT_EQ(JsonObject::GetEmptyObject().ToText(), "{}");
}

TEST(JsonObjectTest, PathWalk) {
    JsonObject document("{\"a\":{\"b\":1},\"list\":[1]}");
    EXPECT_EQ(static_cast<int>(document.GetObject("/a//b/")), 1);
    EXPECT_EQ(document.GetObject("").ToText(), document.ToText());
    EXPECT_EQ(ThrownCode([&] { document.GetObject("a/x"); }), ACCESS_VIOLATION);
    // Walking through a value that is not an object finds no member either.
    EXPECT_EQ(ThrownCode([&] { document.GetObject("a/b/c"); }), ACCESS_VIOLATION);
    EXPECT_EQ(ThrownCode([&] { document.GetObject("list/0"); }), ACCESS_VIOLATION);

    EXPECT_TRUE(document.HasObject(""));
    EXPECT_TRUE(document.HasObject("a/b"));
    EXPECT_FALSE(document.HasObject("a/x"));
    // Lookups do not create what they miss.
    EXPECT_EQ(document.ToText(), "{\"a\":{\"b\":1},\"list\":[1]}");
}

TEST(JsonObjectTest, ViewsWriteThroughAndCopiesFollowOwnership) {
    JsonObject owner("{\"a\":{\"b\":1}}");
    owner["k"] = std::string("v");
    owner.GetObject("a")["c"] = std::string("new");
    EXPECT_EQ(owner.ToText(), "{\"a\":{\"b\":1,\"c\":\"new\"},\"k\":\"v\"}");

    // Copying an owning object gives an independent document...
    JsonObject deep(owner);
    deep["k"] = std::string("changed");
    EXPECT_EQ(static_cast<std::string>(owner["k"]), "v");
    // ...copying a view gives another view, and Copy() is always shallow.
    JsonObject view = owner.GetObject("a");
    JsonObject viewCopy(view);
    viewCopy["b"] = std::string("through copy");
    owner.Copy()["k"] = std::string("shallow");
    EXPECT_EQ(owner.ToText(), "{\"a\":{\"b\":\"through copy\",\"c\":\"new\"},\"k\":\"shallow\"}");

    // Assignment copies the other value in.
    JsonObject source("[1,2]");
    owner["a"] = source;
    source.InsertArrayItem(std::string("later"));
    EXPECT_EQ(owner.ToText(), "{\"a\":[1,2],\"k\":\"shallow\"}");
}

TEST(JsonObjectTest, Conversions) {
    JsonObject document(
        "{\"big\":4294967296,\"code\":6001,\"pi\":2.5,\"flag\":true,\"s\":\"caf\\u00e9\","
        "\"nul\":\"ab\\u0000cd\",\"huge\":18446744073709551615}");
    EXPECT_EQ(static_cast<long>(document["big"]), 4294967296L);
    EXPECT_EQ(static_cast<int>(document["big"]), 0);  // wraps instead of throwing
    EXPECT_EQ(static_cast<AERROR>(document["code"]), JSON_PARSE_FAILED);
    EXPECT_EQ(static_cast<unsigned long long>(document["huge"]), 18446744073709551615ULL);
    EXPECT_DOUBLE_EQ(static_cast<double>(document["pi"]), 2.5);
    EXPECT_TRUE(static_cast<bool>(document["flag"]));
    EXPECT_EQ(static_cast<std::wstring>(document["s"]), L"caf\u00e9");
    EXPECT_EQ(static_cast<std::string>(document["nul"]), "ab");  // ends at the NUL
    EXPECT_EQ(static_cast<std::string>(document["code"]), "6001");
    EXPECT_THROW(static_cast<int>(document["s"]), std::exception);
}

TEST(JsonObjectTest, InsertAndRemove) {
    JsonObject document = JsonObject::GetEmptyObject();
    JsonObject child("{\"n\":1}");
    document.Insert("child", child);
    document.Insert("name", std::wstring(L"\u00e9"));
    JsonObject list = document["list"];
    list.InsertArrayItem(std::string("first"));
    list.InsertArrayItem(child);
    child["n"] = std::string("not in the copies");
    EXPECT_EQ(list.GetArraySize(), 2u);
    EXPECT_EQ(static_cast<std::string>(document["name"]), "\xc3\xa9");
    EXPECT_EQ(document.ToText(),
              "{\"child\":{\"n\":1},\"list\":[\"first\",{\"n\":1}],\"name\":\"\\u00e9\"}");

    EXPECT_TRUE(list.RemoveArrayItem(0));
    EXPECT_FALSE(list.RemoveArrayItem(5));
    EXPECT_TRUE(document.Remove("child"));
    EXPECT_FALSE(document.Remove("child"));
    EXPECT_EQ(document.GetKeys(), (std::vector<std::string>{"list", "name"}));
    EXPECT_EQ(document.ToText(), "{\"list\":[{\"n\":1}],\"name\":\"\\u00e9\"}");
}

TEST(ConfigTest, ParseUpdatesOnlyWhatTheTextHolds) {
    Config config;
    config.AddConfiguration("fstimeout", "/fs/timeout", "20000");
    config.AddConfiguration("interval", "/fs/interval", "100");
    EXPECT_EQ(config.GetValue("fstimeout"), "20000");

    config.Parse("{\"fs\":{\"timeout\":\"45000\",\"interval\":250}}");
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    EXPECT_EQ(config.GetValue("interval"), "250");
    // A later text that lacks a setting does not reset it to its default.
    config.Parse("{\"fs\":{\"interval\":\"5\"}}");
    config.Parse("");
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");
    EXPECT_EQ(config.GetValue("interval"), "5");

    // Broken text throws and changes nothing, as does a value with no text form.
    EXPECT_EQ(ThrownCode([&] { config.Parse("{\"fs\":{\"timeout\":\"1\""); }), JSON_PARSE_FAILED);
    EXPECT_THROW(config.Parse("{\"fs\":{\"timeout\":\"1\",\"interval\":{}}}"), std::exception);
    EXPECT_EQ(config.GetValue("fstimeout"), "45000");

    // A second registration replaces the first, value included.
    config.AddConfiguration("fstimeout", "/other", "30000");
    EXPECT_EQ(config.GetValue("fstimeout"), "30000");
}

TEST(ConfigTest, GetValueOfAnUnknownKeyInsertsAnEmptyEntry) {
    Config config("{\"unknown\":\"ignored\"}");
    EXPECT_EQ(config.GetValue("unknown"), "");
    // The inserted entry's empty path names the whole document.
    config.Parse("\"whole\"");
    EXPECT_EQ(config.GetValue("unknown"), "whole");
}

TEST(ConfigTest, ReadersAndWritersMayRunTogether) {
    Config config;
    config.AddConfiguration("n", "/n", "0");
    std::thread writer([&] {
        for (int i = 1; i <= 300; ++i) {
            config.Parse("{\"n\":" + std::to_string(i) + "}");
        }
    });
    for (int i = 0; i < 300; ++i) {
        ASSERT_FALSE(config.GetValue("n").empty());
    }
    writer.join();
    EXPECT_EQ(config.GetValue("n"), "300");
}

TEST(GetPrivateProfileStringTest, ReadsKeysOfOneSection) {
    char path[] = "/tmp/libfs_profile_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string text =
        "top=outside\n[general]\nname = drive one \r\nurl=http://h/a=b\nno separator\n"
        "  [other]  \nname=second\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);

    char out[64];
    auto read = [&](const char* section, const char* key) {
        return GetPrivateProfileString(section, key, "fallback", out, sizeof(out), path);
    };
    EXPECT_EQ(read("general", "name"), 1);
    EXPECT_STREQ(out, "drive one");
    EXPECT_EQ(read("general", "url"), 1);
    EXPECT_STREQ(out, "http://h/a=b");  // split at the first '='
    EXPECT_EQ(read("other", "name"), 1);
    EXPECT_STREQ(out, "second");
    EXPECT_EQ(read("general", "top"), 0);  // outside the section
    EXPECT_STREQ(out, "fallback");
    EXPECT_EQ(read("missing", "name"), 0);
    EXPECT_STREQ(out, "fallback");

    char small[4];
    EXPECT_EQ(GetPrivateProfileString("general", "name", "x", small, sizeof(small), path), 1);
    EXPECT_STREQ(small, "dri");  // never past the given size
    unlink(path);
    EXPECT_EQ(GetPrivateProfileString("general", "name", "x", small, sizeof(small), path), 0);
    EXPECT_STREQ(small, "x");
}

}  // namespace
