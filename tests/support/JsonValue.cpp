#include "JsonValue.h"

#include <cstdlib>
#include <stdexcept>

class JsonParser {
  public:
    explicit JsonParser(const std::string& text) : text_(text) {}

    void document(JsonValue& out) {
        value(out, 0);
        space();
        if (at_ != text_.size()) fail("text after the document");
    }

  private:
    [[noreturn]] void fail(const std::string& why) {
        throw std::runtime_error(why + " at offset " + std::to_string(at_));
    }
    void space() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' ||
                                      text_[at_] == '\r' || text_[at_] == '\t'))
            ++at_;
    }
    char peek() { return at_ < text_.size() ? text_[at_] : '\0'; }
    void expect(char c) {
        if (peek() != c) fail(std::string("expected '") + c + "'");
        ++at_;
    }
    void word(const char* w, JsonValue& out, JsonValue::Type type, bool flag) {
        for (const char* p = w; *p; ++p) expect(*p);
        out.type_ = type;
        out.boolean_ = flag;
    }

    void value(JsonValue& out, int depth) {
        if (depth > 200) fail("nested too deeply");
        space();
        switch (peek()) {
            case '{':
                return object(out, depth);
            case '[':
                return array(out, depth);
            case '"':
                out.type_ = JsonValue::Type::kString;
                return string(out.string_);
            case 't':
                return word("true", out, JsonValue::Type::kBool, true);
            case 'f':
                return word("false", out, JsonValue::Type::kBool, false);
            case 'n':
                return word("null", out, JsonValue::Type::kNull, false);
            default:
                return number(out);
        }
    }

    void object(JsonValue& out, int depth) {
        out.type_ = JsonValue::Type::kObject;
        expect('{');
        space();
        if (peek() == '}') return void(++at_);
        for (;;) {
            space();
            std::string key;
            string(key);
            if (out.object_.count(key)) fail("duplicate key \"" + key + "\"");
            space();
            expect(':');
            value(out.object_[key], depth + 1);
            space();
            if (peek() == ',') {
                ++at_;
                continue;
            }
            return expect('}');
        }
    }

    void array(JsonValue& out, int depth) {
        out.type_ = JsonValue::Type::kArray;
        expect('[');
        space();
        if (peek() == ']') return void(++at_);
        for (;;) {
            out.array_.emplace_back();
            value(out.array_.back(), depth + 1);
            space();
            if (peek() == ',') {
                ++at_;
                continue;
            }
            return expect(']');
        }
    }

    unsigned hex4() {
        if (at_ + 4 > text_.size()) fail("short \\u escape");
        unsigned code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text_[at_++];
            code <<= 4;
            if (c >= '0' && c <= '9')
                code |= c - '0';
            else if (c >= 'a' && c <= 'f')
                code |= c - 'a' + 10;
            else if (c >= 'A' && c <= 'F')
                code |= c - 'A' + 10;
            else
                fail("bad \\u escape");
        }
        return code;
    }

    static void utf8(unsigned code, std::string& out) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    void string(std::string& out) {
        expect('"');
        for (;;) {
            if (at_ >= text_.size()) fail("unterminated string");
            const unsigned char c = static_cast<unsigned char>(text_[at_++]);
            if (c == '"') return;
            if (c < 0x20) fail("control character in a string");
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            const char e = peek();
            ++at_;
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    unsigned code = hex4();
                    if (code >= 0xD800 && code <= 0xDBFF) {
                        expect('\\');
                        expect('u');
                        const unsigned low = hex4();
                        if (low < 0xDC00 || low > 0xDFFF) fail("lone surrogate");
                        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    } else if (code >= 0xDC00 && code <= 0xDFFF) {
                        fail("lone surrogate");
                    }
                    utf8(code, out);
                    break;
                }
                default:
                    fail("bad escape");
            }
        }
    }

    void number(JsonValue& out) {
        const size_t start = at_;
        if (peek() == '-') ++at_;
        if (peek() == '0') {
            ++at_;
        } else if (peek() >= '1' && peek() <= '9') {
            while (isdigit(static_cast<unsigned char>(peek()))) ++at_;
        } else {
            fail("expected a value");
        }
        if (peek() == '.') {
            ++at_;
            if (!isdigit(static_cast<unsigned char>(peek()))) fail("digit expected");
            while (isdigit(static_cast<unsigned char>(peek()))) ++at_;
        }
        if (peek() == 'e' || peek() == 'E') {
            ++at_;
            if (peek() == '+' || peek() == '-') ++at_;
            if (!isdigit(static_cast<unsigned char>(peek()))) fail("digit expected");
            while (isdigit(static_cast<unsigned char>(peek()))) ++at_;
        }
        out.type_ = JsonValue::Type::kNumber;
        out.number_ = strtod(text_.substr(start, at_ - start).c_str(), nullptr);
    }

    const std::string& text_;
    size_t at_ = 0;
};

bool JsonValue::parse(const std::string& text, JsonValue& out, std::string& error) {
    out = JsonValue();
    try {
        JsonParser(text).document(out);
        return true;
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
}

const JsonValue& JsonValue::operator[](const std::string& key) const {
    static const JsonValue kNull;
    const auto found = object_.find(key);
    return found == object_.end() ? kNull : found->second;
}

const JsonValue& JsonValue::operator[](size_t i) const {
    static const JsonValue kNull;
    return i < array_.size() ? array_[i] : kNull;
}
