#include "KSProperties.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "FileCloser.h"
#include "KSAssertionException.h"

namespace {

const char* const kSourceFile = "backend/imutils/src/KSProperties";
constexpr size_t kLinePiece = 65536;

}  // namespace

// ---- KSProperty ----

std::unique_ptr<char[]> KSProperty::copyOf(const char* str) {
    KS_ASSERT_NOT_NULL(str, kSourceFile);
    size_t n = strlen(str) + 1;
    std::unique_ptr<char[]> copy(new char[n]);
    memcpy(copy.get(), str, n);
    return copy;
}

KSProperty::KSProperty(const char* name, const char* value)
    : name_(copyOf(name)), value_(copyOf(value)) {}

KSProperty::KSProperty(const KSProperty& other)
    : name_(copyOf(other.name_.get())), value_(copyOf(other.value_.get())) {}

KSProperty& KSProperty::operator=(const KSProperty& other) {
    if (this != &other) {
        auto name = copyOf(other.name_.get());
        auto value = copyOf(other.value_.get());
        name_ = std::move(name);
        value_ = std::move(value);
    }
    return *this;
}

void KSProperty::setValue(const char* value) {
    KS_ASSERT_NOT_NULL(value, kSourceFile);
    value_ = copyOf(value);
}

// ---- KSProperties ----

KSProperties::KSProperties(KSProperties&& other) noexcept : entries_(std::move(other.entries_)) {
    other.entries_.clear();
}

KSProperties& KSProperties::operator=(KSProperties&& other) noexcept {
    if (this != &other) {
        entries_ = std::move(other.entries_);
        other.entries_.clear();
    }
    return *this;
}

char* KSProperties::skipWhiteSpaces(char* p) {
    while (*p != '\0' && isspace(static_cast<unsigned char>(*p))) ++p;
    return p;
}

char* KSProperties::trim(char* p) {
    p = skipWhiteSpaces(p);
    size_t n = strlen(p);
    while (n > 0 && isspace(static_cast<unsigned char>(p[n - 1]))) p[--n] = '\0';
    return p;
}

char* KSProperties::replace(char* p, char from, char to) {
    for (char* c = p; *c != '\0'; ++c)
        if (*c == from) *c = to;
    return p;
}

char* KSProperties::getNextValue(char*& p, char separator) {
    char* sep = strchr(p, separator);
    if (sep == nullptr) return nullptr;
    *sep = '\0';
    char* before = p;
    p = sep + 1;
    return trim(before);
}

void KSProperties::parseLine(char* line) {
    char* p = skipWhiteSpaces(line);
    if (*p == '\0' || *p == '#') return;
    char* name = getNextValue(p, '=');
    if (name == nullptr || *name == '\0') return;
    char* value = trim(replace(p, '"', ' '));
    setProperty(name, value);
}

bool KSProperties::load(const char* filename) {
    KS_ASSERT_NOT_NULL(filename, kSourceFile);
    FileCloser file(fopen(filename, "rb"));
    if (file.get() == nullptr) return false;
    std::unique_ptr<char[]> buffer(new char[kLinePiece]);
    while (fgets(buffer.get(), kLinePiece, file.get()) != nullptr) parseLine(buffer.get());
    return true;
}

// A regular file (or a new one) is written beside itself and renamed over the old one, so that a
// reader, in this process, another one or on another server of a shared directory, finds the old
// content or the new, never a truncated or half-written file. Anything else (a device, a fifo)
// is written in place: renaming over it would replace the node itself.
bool KSProperties::write(const char* filename) const {
    KS_ASSERT_NOT_NULL(filename, kSourceFile);
    struct stat st;
    const bool inPlace = stat(filename, &st) == 0 && !S_ISREG(st.st_mode);
    static std::atomic<unsigned> sequence{0};
    const std::string beside = std::string(filename) + ".new." + std::to_string(getpid()) + "." +
                               std::to_string(sequence.fetch_add(1));
    const char* target = inPlace ? filename : beside.c_str();
    FileCloser file(fopen(target, "wb"));
    if (file.get() == nullptr)
        throw KSAssertionException("f", __LINE__, kSourceFile,
                                   "could not open %s in KSProperties::write", filename);
    bool written = true;
    for (const KSProperty& entry : entries_)
        if (fprintf(file.get(), "%s=\"%s\"\n", entry.getName(), entry.getValue()) < 0)
            written = false;
    if (inPlace) return file.close() && written;
    written = fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0 && written;
    if (file.close() && written && rename(beside.c_str(), filename) == 0) return true;
    unlink(beside.c_str());
    return false;
}

std::string KSProperties::text() const {
    std::string text;
    for (const KSProperty& entry : entries_) {
        text += entry.getName();
        text += "=\"";
        text += entry.getValue();
        text += "\"\n";
    }
    return text;
}

KSProperty* KSProperties::find(const char* name) {
    for (KSProperty& entry : entries_)
        if (strcmp(entry.getName(), name) == 0) return &entry;
    return nullptr;
}

const char* KSProperties::getProperty(const char* name) const {
    KS_ASSERT_NOT_NULL(name, kSourceFile);
    for (const KSProperty& entry : entries_)
        if (strcmp(entry.getName(), name) == 0) return entry.getValue();
    return nullptr;
}

void KSProperties::setProperty(const char* name, const char* value) {
    KS_ASSERT_NOT_NULL(name, kSourceFile);
    KS_ASSERT_NOT_NULL(value, kSourceFile);
    if (KSProperty* entry = find(name))
        entry->setValue(value);
    else
        entries_.emplace_back(name, value);
}

void KSProperties::remove(const char* name) {
    KS_ASSERT_NOT_NULL(name, kSourceFile);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (strcmp(it->getName(), name) == 0) {
            entries_.erase(it);
            return;
        }
    }
}
