#include "JsonWriter.h"

#include <cmath>

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 when it is not one.
size_t utf8Length(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    size_t length;
    unsigned minimum;
    unsigned code;
    if (lead < 0x80) return 1;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, minimum = 0x80, code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, minimum = 0x800, code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, minimum = 0x10000, code = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

}  // namespace

std::string JsonWriter::quoted(const std::string& text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8Length(text, i);
        if (length == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        if (length > 1) {
            out.append(text, i, length);
            i += length;
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char escape[8];
                    snprintf(escape, sizeof escape, "\\u%04x", c);
                    out += escape;
                } else {
                    out += static_cast<char>(c);
                }
        }
        ++i;
    }
    return out + "\"";
}

void JsonWriter::newline() {
    fputc('\n', out_);
    for (size_t i = 0; i < levels_.size(); ++i) fputs("  ", out_);
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (levels_.empty()) return;
    if (!levels_.back().empty) fputc(',', out_);
    levels_.back().empty = false;
    newline();
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    fputc('{', out_);
    levels_.push_back({true, true});
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    fputc('[', out_);
    levels_.push_back({false, true});
    return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
    const bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) newline();
    fputc(bracket, out_);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    return close('}');
}

JsonWriter& JsonWriter::endArray() {
    return close(']');
}

JsonWriter& JsonWriter::key(const std::string& name) {
    if (!levels_.back().empty) fputc(',', out_);
    levels_.back().empty = false;
    newline();
    fprintf(out_, "%s: ", quoted(name).c_str());
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(const std::string& text) {
    beforeValue();
    fputs(quoted(text).c_str(), out_);
    return *this;
}

JsonWriter& JsonWriter::value(const char* text) {
    return text == nullptr ? null() : value(std::string(text));
}

JsonWriter& JsonWriter::value(bool flag) {
    beforeValue();
    fputs(flag ? "true" : "false", out_);
    return *this;
}

JsonWriter& JsonWriter::value(long long number) {
    beforeValue();
    fprintf(out_, "%lld", number);
    return *this;
}

JsonWriter& JsonWriter::value(unsigned long long number) {
    beforeValue();
    fprintf(out_, "%llu", number);
    return *this;
}

JsonWriter& JsonWriter::value(double number) {
    if (!std::isfinite(number)) return null();
    beforeValue();
    fprintf(out_, "%.15g", number);
    return *this;
}

JsonWriter& JsonWriter::null() {
    beforeValue();
    fputs("null", out_);
    return *this;
}

void JsonWriter::finish() {
    fputc('\n', out_);
    fflush(out_);
}
