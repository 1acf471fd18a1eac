// The hash and path helpers against the documented layout, computed here independently: the
// hash prefix of a name, the hashed form of a relative path, the location of a resource,
// lexical normalisation, the directory helpers and the resource name check.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzScratch.h"
#include "KSPathUtils.h"
#include "repohandler.h"

namespace {

const char kAlphabet[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";

std::string prefixOf(const std::string& name) {
    uint32_t sums[6] = {0, 0, 0, 0, 0, 0};
    for (size_t i = 1; i <= name.size(); ++i) {
        const uint32_t c = static_cast<unsigned char>(name[i - 1]);
        for (uint32_t k = 0; k < 6; ++k) sums[k] += (i + k) * (i + k) * c;
    }
    std::string prefix;
    for (int k = 0; k < 6; ++k) {
        prefix += kAlphabet[(sums[k] & 0xff) % 37];
        if (k % 2 == 1) prefix += '/';
    }
    return prefix;
}

std::string hashedForm(const std::string& path, bool hashLast) {
    std::string result;
    size_t start = 0;
    for (size_t slash = path.find('/'); slash != std::string::npos;
         start = slash + 1, slash = path.find('/', start)) {
        const std::string component = path.substr(start, slash - start);
        if (!component.empty()) result += prefixOf(component) + component + "/";
    }
    const std::string last = path.substr(start);
    if (!last.empty()) result += hashLast ? prefixOf(last) + last : last;
    return result;
}

std::string normalForm(const std::string& path, const std::string& cwd) {
    std::vector<std::string> parts;
    const std::string full = path.empty() ? cwd : (path[0] == '/' ? path : cwd + "/" + path);
    size_t start = 0;
    while (start <= full.size()) {
        size_t end = full.find('/', start);
        if (end == std::string::npos) end = full.size();
        const std::string part = full.substr(start, end - start);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = end + 1;
    }
    std::string result;
    for (const std::string& part : parts) result += "/" + part;
    return result.empty() ? "/" : result;
}

std::string taken(char* text) {  // takes a new[] result of the helpers
    FUZZ_CHECK(text != nullptr, "unexpected null result");
    std::string copy = text;
    delete[] text;
    return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Names are C strings: the text up to the first NUL is what every helper sees.
    const std::string raw(reinterpret_cast<const char*>(data), size);
    const std::string text = raw.substr(0, raw.find('\0'));
    const char* c = text.c_str();

    const std::string hashed = taken(createHash(c));
    FUZZ_CHECK(hashed == prefixOf(text) + text, "createHash('%s') = '%s'", c, hashed.c_str());
    for (bool hashLast : {false, true}) {
        const std::string converted = taken(convertToHashed_(c, hashLast));
        FUZZ_CHECK(converted == hashedForm(text, hashLast), "convertToHashed_('%s', %d) = '%s'", c,
                   hashLast, converted.c_str());
        FUZZ_CHECK(converted.empty() || converted[0] != '/', "'%s' hashed to an absolute path", c);
    }

    const bool safe = isSafeResourceName(c);
    FUZZ_CHECK(safe == (!text.empty() && text != "." && text != ".." &&
                        text.find('/') == std::string::npos &&
                        text.compare(0, 12, ".rh-partial.") != 0),
               "isSafeResourceName('%s') = %d", c, safe);
    if (safe) {
        // Only safe names are ever placed: three hash levels, then the name itself, which
        // normalisation leaves where it is (it cannot climb out of its hash levels).
        const std::string location = resourceLocation("/m", c);
        const std::string expected = "/m/" + prefixOf(text) + text;
        FUZZ_CHECK(location == expected, "resourceLocation('%s') = '%s'", c, location.c_str());
        FUZZ_CHECK(normalForm(location, "/") == location, "'%s' leaves its place: %s", c,
                   location.c_str());
    }

    const size_t lastSlash = text.rfind('/');
    char* base = baseDir(c);
    FUZZ_CHECK((base == nullptr) == (lastSlash == std::string::npos), "baseDir('%s')", c);
    if (base != nullptr) {
        FUZZ_CHECK(taken(base) == text.substr(0, lastSlash + 1), "baseDir('%s')", c);
    }
    char* parent = parentDir(c);
    if (parent != nullptr) {
        const std::string p = taken(parent);
        FUZZ_CHECK(lastSlash != std::string::npos && p.size() <= lastSlash && !p.empty() &&
                       p.back() == '/' && text.compare(0, p.size(), p) == 0,
                   "parentDir('%s') = '%s'", c, p.c_str());
    }

    const std::string id = taken(toResourceID("/r/x", c));
    FUZZ_CHECK(id.find('/') == std::string::npos, "toResourceID('%s') holds a slash", c);

    static const std::string cwd = [] {
        char buffer[4096];
        return std::string(getcwd(buffer, sizeof buffer) != nullptr ? buffer : "");
    }();
    char* normal = normalize_file_name(c);
    FUZZ_CHECK(normal != nullptr, "normalize_file_name('%s') is null", c);
    const std::string n = normal;
    free(normal);
    FUZZ_CHECK(n == normalForm(text, cwd), "normalize_file_name('%s') = '%s'", c, n.c_str());
    return 0;
}
