#include "RepoctlArgs.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>

#include "RepoctlCommand.h"

namespace {

bool listed(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

RepoctlArgs::RepoctlArgs(int argc, char** argv, const std::vector<std::string>& flags,
                         const std::vector<std::string>& valued) {
    bool optionsEnded = false;
    for (int i = 1; i < argc && error_.empty(); ++i) {
        const std::string arg = argv[i];
        if (optionsEnded || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            positional_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        if (listed(flags, name) && equals == std::string::npos) {
            given_[name] = "";
        } else if (listed(valued, name)) {
            if (equals != std::string::npos) {
                given_[name] = arg.substr(equals + 1);
            } else if (i + 1 < argc) {
                given_[name] = argv[++i];
            } else {
                error_ = "option \"" + name + "\" needs a value";
            }
        } else {
            error_ = "unknown option \"" + arg + "\"";
        }
    }
}

const char* RepoctlArgs::value(const std::string& option) const {
    auto it = given_.find(option);
    return it == given_.end() ? nullptr : it->second.c_str();
}

int repoctlUsageError(const char* name, const std::string& what) {
    fprintf(stderr, "repoctl %s: %s\n", name, what.c_str());
    return repoctlUsage(name);
}

bool parseDuration(const std::string& text, long long& seconds) {
    if (text.empty()) return false;
    size_t digits = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
    if (digits == 0 || digits > 12) return false;
    long long unit = 1;
    const std::string suffix = text.substr(digits);
    if (suffix == "d")
        unit = 86400;
    else if (suffix == "h")
        unit = 3600;
    else if (suffix == "m")
        unit = 60;
    else if (!suffix.empty() && suffix != "s")
        return false;
    seconds = std::stoll(text.substr(0, digits)) * unit;
    return true;
}

bool isRepositoryDirectory(const char* command, const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
    fprintf(stderr, "repoctl %s: no repository directory \"%s\"\n", command, path.c_str());
    return false;
}

std::function<std::string()> elapsedLine(const std::string& what) {
    const auto start = std::chrono::steady_clock::now();
    return [what, start] {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        char text[32];
        snprintf(text, sizeof text, "  %.1f s", seconds);
        return what + text;
    };
}
