#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

// A parsed JSON document, for tests that check repoctl's --json output. The parser is written
// independently of the tool's writer and is strict (RFC 8259): trailing commas, single quotes,
// comments, leading zeros, unescaped control characters and text after the document are errors.
class JsonValue {
  public:
    enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };

    // Parses `text`. On a syntax error returns false and says where in `error`.
    static bool parse(const std::string& text, JsonValue& out, std::string& error);

    Type type() const { return type_; }
    bool isNull() const { return type_ == Type::kNull; }
    bool boolean() const { return boolean_; }
    double number() const { return number_; }
    const std::string& string() const { return string_; }
    const std::vector<JsonValue>& array() const { return array_; }
    const std::map<std::string, JsonValue>& object() const { return object_; }

    // The member `key` of an object; a null value when absent or when this is no object.
    const JsonValue& operator[](const std::string& key) const;
    // The element `i` of an array; a null value when out of range.
    const JsonValue& operator[](size_t i) const;
    const JsonValue& operator[](int i) const { return (*this)[static_cast<size_t>(i)]; }
    bool has(const std::string& key) const { return object_.count(key) != 0; }
    size_t size() const { return type_ == Type::kArray ? array_.size() : object_.size(); }

  private:
    friend class JsonParser;
    Type type_ = Type::kNull;
    bool boolean_ = false;
    double number_ = 0;
    std::string string_;
    std::vector<JsonValue> array_;
    std::map<std::string, JsonValue> object_;
};
