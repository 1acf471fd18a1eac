// The properties reader against a reading of the documented syntax written here independently:
// every name it reports must carry the value the syntax gives, and nothing else may appear.
// Then the entries written back out must read back the same (for values that the format can
// hold: no '"' and no line feed).

#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "FuzzScratch.h"
#include "KSProperties.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

std::string trimmed(const std::string& text) {
    size_t begin = 0, end = text.size();
    while (begin < end && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && isspace(static_cast<unsigned char>(text[end - 1]))) --end;
    return text.substr(begin, end - begin);
}

void expectLine(std::string line, Entries& entries) {
    line = line.substr(0, line.find('\0'));  // the reader sees C strings
    const std::string content = trimmed(line);
    if (content.empty() || content[0] == '#') return;
    const size_t equals = line.find('=');
    if (equals == std::string::npos) return;
    const std::string name = trimmed(line.substr(0, equals));
    if (name.empty()) return;
    std::string value = line.substr(equals + 1);
    for (char& c : value)
        if (c == '"') c = ' ';
    value = trimmed(value);
    for (auto& entry : entries) {
        if (entry.first == name) {
            entry.second = value;
            return;
        }
    }
    entries.emplace_back(name, value);
}

Entries expectedEntries(const std::string& text) {
    Entries entries;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        expectLine(text.substr(start, end - start), entries);
        start = end + 1;
    }
    return entries;
}

void expectSame(const KSProperties& properties, const Entries& expected, const char* when) {
    FUZZ_CHECK(properties.size() == expected.size(), "%s: %zu entries, expected %zu", when,
               properties.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const KSProperty& entry = properties.at(i);
        FUZZ_CHECK(expected[i].first == entry.getName(), "%s: entry %zu is '%s', expected '%s'",
                   when, i, entry.getName(), expected[i].first.c_str());
        FUZZ_CHECK(expected[i].second == entry.getValue(), "%s: '%s' is '%s', expected '%s'", when,
                   entry.getName(), entry.getValue(), expected[i].second.c_str());
        FUZZ_CHECK(strcmp(properties.getProperty(entry.getName()), entry.getValue()) == 0,
                   "%s: getProperty('%s') differs from the entry", when, entry.getName());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratch scratch;
    if (size > 60000) return -1;  // longer lines are read in pieces, which the model leaves out
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string file = scratch.path("in.cfg");
    FuzzScratch::write(file, data, size);

    KSProperties properties;
    FUZZ_CHECK(properties.load(file.c_str()), "load failed");
    const Entries expected = expectedEntries(text);
    expectSame(properties, expected, "load");

    const std::string copy = scratch.path("out.cfg");
    FUZZ_CHECK(properties.write(copy.c_str()), "write failed");
    KSProperties reread;
    FUZZ_CHECK(reread.load(copy.c_str()), "load of the written file failed");
    expectSame(reread, expected, "write and load again");
    return 0;
}
