#include "KSPartialCopy.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>

#include "KSLogger.h"
#include "ShellCommand.h"

const char kPartialCopyPrefix[] = ".rh-partial.";

namespace {

constexpr size_t kNameMax = 255;
constexpr size_t kPrefixLength = sizeof kPartialCopyPrefix - 1;
constexpr size_t kHashDigits = 16;

uint64_t fnv1a(const std::string& text) {
    uint64_t hash = 1469598103934665603ULL;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ULL;
    }
    return hash;
}

std::string leafOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string partialCopyName(const std::string& leaf) {
    if (kPrefixLength + leaf.size() < kNameMax) return kPartialCopyPrefix + leaf;
    char digits[kHashDigits + 1];
    snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(fnv1a(leaf)));
    const size_t kept = kNameMax - kPrefixLength - 1 - kHashDigits;
    return kPartialCopyPrefix + leaf.substr(0, kept) + "~" + digits;
}

std::string partialCopyPath(const std::string& destination) {
    const size_t slash = destination.rfind('/');
    if (slash == std::string::npos) return partialCopyName(destination);
    return destination.substr(0, slash + 1) + partialCopyName(destination.substr(slash + 1));
}

bool isPartialCopy(const std::string& path) {
    return leafOf(path).compare(0, kPrefixLength, kPartialCopyPrefix) == 0;
}

std::string resourceOfPartialCopy(const std::string& name) {
    if (!isPartialCopy(name) || name.find('/') != std::string::npos) return std::string();
    // Only shortened names are kNameMax long.
    if (name.size() >= kNameMax) return std::string();
    return name.substr(kPrefixLength);
}

bool discardPartialCopy(const std::string& path) {
    struct stat st;
    if (!isPartialCopy(path) || lstat(path.c_str(), &st) != 0) return false;
    rh_logger.infoLog("Removing the partial copy \"%s\" left by an interrupted copy", path.c_str());
    ShellCommand("rm -fr '").insideSingleQuotes(path).raw("'").run();
    return lstat(path.c_str(), &st) != 0;
}
