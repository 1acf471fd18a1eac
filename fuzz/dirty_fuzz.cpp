// The reader of a repository's ".dirty" file: whatever the file holds, binding a dirty set to
// the repository must not crash, and for files of ordinary lines (no NUL, none longer than 1023
// bytes) the set must be exactly the file's lines. A name marked afterwards must be written so
// that a second process's reader sees the same set plus that name.

#include <stdlib.h>

#include <cstdint>
#include <set>
#include <string>

#include "FuzzScratch.h"
#include "KSDirtyFlagHandler.h"

namespace {

// The lines of the file, or false when the model does not cover the input.
bool expectedNames(const std::string& text, std::set<std::string>* names) {
    if (text.find('\0') != std::string::npos) return false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (end - start > 1023) return false;
        names->insert(text.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

std::string listed(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += "[" + name + "]";
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratch scratch;
    static const std::string repository = scratch.path("repo");
    static bool prepared = [] {
        setenv("LOCK_VAR", scratch.root().c_str(), 1);
        return system(("mkdir -p '" + repository + "'").c_str()) == 0;
    }();
    FUZZ_CHECK(prepared, "cannot make %s", repository.c_str());
    const std::string text(reinterpret_cast<const char*>(data), size);
    FuzzScratch::write(repository + "/.dirty", data, size);

    KSDirtyFlagHandler first;
    first.setRepository(nullptr, repository.c_str(), false);
    std::set<std::string> expected;
    const bool modelled = expectedNames(text, &expected);
    if (modelled) {
        FUZZ_CHECK(first.snapshot() == expected, "read %s, expected %s",
                   listed(first.snapshot()).c_str(), listed(expected).c_str());
    }

    const std::string marked = "marked by the fuzzer";
    first.setDirty(nullptr, marked.c_str(), true);
    FUZZ_CHECK(first.isDirty(nullptr, marked.c_str(), false), "the new mark is not seen");
    KSDirtyFlagHandler second;
    second.setRepository(nullptr, repository.c_str(), false);
    FUZZ_CHECK(second.snapshot() == first.snapshot(), "second reader %s, first %s",
               listed(second.snapshot()).c_str(), listed(first.snapshot()).c_str());
    if (modelled) {
        expected.insert(marked);
        FUZZ_CHECK(second.snapshot() == expected, "after the mark %s, expected %s",
                   listed(second.snapshot()).c_str(), listed(expected).c_str());
    }
    return 0;
}
