#include "RepoctlLastRun.h"

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSStateFile.h"

std::string RepoctlLastRun::fileFor(const std::string& repository) {
    const char* var = getenv("VAR");
    if (var == nullptr || *var == '\0') return std::string();
    std::unique_ptr<char[]> id(toResourceID(repository.c_str(), ""));
    return std::string(var) + "/lastrun-" + (id ? id.get() : "") + ".cfg";
}

bool RepoctlLastRun::record(const std::string& repository) const {
    const std::string file = fileFor(repository);
    if (file.empty()) {
        errno = ENOENT;
        return false;
    }
    KSProperties p;
    p.setProperty("command", command.c_str());
    p.setProperty("night", night ? "true" : "false");
    p.setProperty("started", std::to_string(started).c_str());
    p.setProperty("seconds", std::to_string(seconds).c_str());
    p.setProperty("checked", std::to_string(checked).c_str());
    p.setProperty("moved", std::to_string(moved).c_str());
    p.setProperty("deleted", std::to_string(deleted).c_str());
    p.setProperty("bytes", std::to_string(bytes).c_str());
    p.setProperty("stopped", stopped ? "true" : "false");
    p.setProperty("exitCode", std::to_string(exitCode).c_str());
    return KSStateFile::replace(file, p.text()) == KSStateFile::Result::kReplaced;
}

bool RepoctlLastRun::load(const std::string& repository) {
    const std::string file = fileFor(repository);
    KSProperties p;
    if (file.empty() || !p.load(file.c_str())) return false;
    const auto text = [&](const char* key) {
        const char* v = p.getProperty(key);
        return std::string(v ? v : "");
    };
    const auto number = [&](const char* key) { return strtoull(text(key).c_str(), nullptr, 10); };
    command = text("command");
    if (command.empty()) return false;
    night = text("night") == "true";
    started = strtoll(text("started").c_str(), nullptr, 10);
    seconds = strtod(text("seconds").c_str(), nullptr);
    checked = number("checked");
    moved = number("moved");
    deleted = number("deleted");
    bytes = number("bytes");
    stopped = text("stopped") == "true";
    exitCode = static_cast<int>(strtol(text("exitCode").c_str(), nullptr, 10));
    return true;
}
