#pragma once

#include <cstdio>
#include <string>
#include <vector>

// Writes one JSON document to a stream, indented two spaces a level, for repoctl's --json
// output. The caller opens and closes objects and arrays in order; inside an object each value
// is preceded by key(). Commas and indentation are the writer's business.
//
// Strings are written as given, with quotes, backslashes and control characters escaped; bytes
// that are not valid UTF-8 are written as U+FFFD so that the document always parses. Numbers
// that are not finite are written as null.
//
// Not thread-safe; one writer per document.
class JsonWriter {
  public:
    explicit JsonWriter(FILE* out) : out_(out) {}

    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(const std::string& name);

    JsonWriter& value(const std::string& text);
    JsonWriter& value(const char* text);  // null writes null
    JsonWriter& value(bool flag);
    JsonWriter& value(int number) { return value(static_cast<long long>(number)); }
    JsonWriter& value(long number) { return value(static_cast<long long>(number)); }
    JsonWriter& value(unsigned number) { return value(static_cast<unsigned long long>(number)); }
    JsonWriter& value(unsigned long number) {
        return value(static_cast<unsigned long long>(number));
    }
    JsonWriter& value(long long number);
    JsonWriter& value(unsigned long long number);
    JsonWriter& value(double number);
    JsonWriter& null();

    // key(name).value(v) in one call.
    template <typename T>
    JsonWriter& field(const std::string& name, const T& v) {
        key(name);
        return value(v);
    }

    // Ends the document with a newline. Call once, after the outermost value.
    void finish();

    // `text` as a JSON string literal, quotes included.
    static std::string quoted(const std::string& text);

  private:
    void beforeValue();
    void newline();
    JsonWriter& close(char bracket);

    struct Level {
        bool object;
        bool empty;
    };
    FILE* out_;
    std::vector<Level> levels_;
    bool afterKey_ = false;
};
