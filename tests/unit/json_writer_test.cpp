#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "JsonValue.h"
#include "JsonWriter.h"

namespace {

// Runs `write` against a JsonWriter on a memory stream and returns what it wrote.
template <typename Body>
std::string written(Body write) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&buffer, &size);
    {
        JsonWriter json(stream);
        write(json);
        json.finish();
    }
    fclose(stream);
    std::string text(buffer, size);
    free(buffer);
    return text;
}

JsonValue parsed(const std::string& text) {
    JsonValue value;
    std::string error;
    EXPECT_TRUE(JsonValue::parse(text, value, error)) << error << "\n" << text;
    return value;
}

}  // namespace

TEST(JsonWriter, nestedDocumentsReadBackAsWritten) {
    const std::string text = written([](JsonWriter& json) {
        json.beginObject()
            .field("name", "p1")
            .field("used", 60.25)
            .field("count", 18446744073709551615ull)
            .field("negative", -7)
            .field("dead", false)
            .key("none")
            .null()
            .key("empty")
            .beginArray()
            .endArray()
            .key("nothing")
            .beginObject()
            .endObject()
            .key("mounts")
            .beginArray()
            .beginObject()
            .field("index", 0)
            .endObject()
            .value("second")
            .endArray()
            .endObject();
    });
    const JsonValue doc = parsed(text);
    EXPECT_EQ(doc["name"].string(), "p1");
    EXPECT_DOUBLE_EQ(doc["used"].number(), 60.25);
    EXPECT_DOUBLE_EQ(doc["count"].number(), 18446744073709551615.0);
    EXPECT_DOUBLE_EQ(doc["negative"].number(), -7);
    EXPECT_EQ(doc["dead"].type(), JsonValue::Type::kBool);
    EXPECT_FALSE(doc["dead"].boolean());
    EXPECT_TRUE(doc.has("none"));
    EXPECT_TRUE(doc["none"].isNull());
    EXPECT_EQ(doc["empty"].type(), JsonValue::Type::kArray);
    EXPECT_EQ(doc["empty"].size(), 0u);
    EXPECT_EQ(doc["nothing"].type(), JsonValue::Type::kObject);
    EXPECT_EQ(doc["mounts"].size(), 2u);
    EXPECT_DOUBLE_EQ(doc["mounts"][0]["index"].number(), 0);
    EXPECT_EQ(doc["mounts"][1].string(), "second");
}

TEST(JsonWriter, hostileStringsStayOneParsableValue) {
    const std::string hostile =
        std::string("a\"b\\c\n\t\x01\x7f end ") + "\xc3\xa9\xf0\x9f\x98\x80";
    const std::string broken = "x\xff\xc3(\xe2\x82y\xed\xa0\x80";  // bad lead, cut, surrogate
    const std::string text = written([&](JsonWriter& json) {
        json.beginObject().field(hostile, hostile).field("broken", broken).endObject();
    });
    const JsonValue doc = parsed(text);
    EXPECT_EQ(doc[hostile].string(), hostile);
    const std::string replacement = "\xef\xbf\xbd";
    EXPECT_EQ(doc["broken"].string(), "x" + replacement + replacement + "(" + replacement +
                                          replacement + "y" + replacement + replacement +
                                          replacement);
}

TEST(JsonWriter, numbersThatJsonCannotHoldAreWrittenAsNull) {
    const std::string text = written([](JsonWriter& json) {
        json.beginArray().value(NAN).value(INFINITY).value(0.1).endArray();
    });
    const JsonValue doc = parsed(text);
    EXPECT_TRUE(doc[0].isNull());
    EXPECT_TRUE(doc[1].isNull());
    EXPECT_DOUBLE_EQ(doc[2].number(), 0.1);
}

TEST(JsonValue, malformedDocumentsAreRefused) {
    for (const char* bad : {"", "{", "[1,]", "{\"a\":1,}", "{'a':1}", "01", "1 2", "\"a\nb\"",
                            "{\"a\":1,\"a\":2}", "[\"\\ud800\"]", "nul", "-", "1.", "[1e]"}) {
        JsonValue value;
        std::string error;
        EXPECT_FALSE(JsonValue::parse(bad, value, error)) << bad;
    }
}
