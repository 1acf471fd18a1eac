#include "KSLockToken.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <vector>

namespace {

const char kPrefix[] = "SEM";

struct ProcessPart {
    pid_t pid = 0;
    std::string text;  // host:pid:start:boot:nonce
};

// Field 22 of /proc/PID/stat; the command name before it may hold blanks and parentheses, so
// counting starts after the last ')'. 0 when the process does not exist.
unsigned long long startTicksOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return 0;
    size_t close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    // After ')' come field 3 (state) onwards; field 22 is the 20th of them.
    for (int i = 3; i <= 22; ++i) {
        if (!(fields >> field)) return 0;
    }
    return strtoull(field.c_str(), nullptr, 10);
}

std::string bootId() {
    std::ifstream in("/proc/sys/kernel/random/boot_id");
    std::string id;
    std::getline(in, id);
    return id.substr(0, 8);
}

std::string hostName() {
    char name[256] = {0};
    if (gethostname(name, sizeof name - 1) != 0) return "unknown";
    return name;
}

std::string randomHex8() {
    std::random_device device;
    char hex[9];
    snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(device()));
    return hex;
}

// Drawn again after a fork: the child is another process and must not repeat its parent's part.
std::string processPart() {
    static std::mutex mutex;
    static ProcessPart part;
    std::lock_guard<std::mutex> guard(mutex);
    const pid_t self = getpid();
    if (part.pid != self) {
        part.pid = self;
        part.text = hostName() + ":" + std::to_string(self) + ":" +
                    std::to_string(startTicksOf(self)) + ":" + bootId() + ":" + randomHex8();
    }
    return part.text;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (;;) {
        size_t end = text.find(separator, begin);
        parts.push_back(text.substr(begin, end - begin));
        if (end == std::string::npos) return parts;
        begin = end + 1;
    }
}

bool readNumber(const std::string& text, unsigned long long& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    out = strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

}  // namespace

std::string KSLockToken::next() {
    static std::atomic<unsigned long long> serial{0};
    return std::string(kPrefix) + ":" + processPart() + ":" + std::to_string(++serial);
}

bool KSLockToken::parse(const std::string& token, Holder& out) {
    const std::vector<std::string> parts = split(token, ':');
    if (parts.size() != 7 || parts[0] != kPrefix || parts[1].empty()) return false;
    Holder holder;
    unsigned long long pid = 0;
    if (!readNumber(parts[2], pid) || pid == 0 || pid > 0x7fffffffULL) return false;
    if (!readNumber(parts[3], holder.startTicks) || !readNumber(parts[6], holder.serial)) {
        return false;
    }
    holder.host = parts[1];
    holder.pid = static_cast<pid_t>(pid);
    holder.bootId = parts[4];
    holder.nonce = parts[5];
    out = holder;
    return true;
}

// A pid alone does not prove anything: it may have been given to a new process since. The start
// time and the boot id make the comparison exact.
KSLockToken::Liveness KSLockToken::liveness(const std::string& token) {
    Holder holder;
    if (!parse(token, holder)) return Liveness::Unknown;
    if (holder.host != hostName()) return Liveness::OtherHost;
    if (holder.bootId != bootId()) return Liveness::Gone;
    const unsigned long long start = startTicksOf(holder.pid);
    return start != 0 && start == holder.startTicks ? Liveness::Running : Liveness::Gone;
}

const char* KSLockToken::describe(Liveness liveness) {
    switch (liveness) {
        case Liveness::Running:
            return "running";
        case Liveness::Gone:
            return "gone";
        case Liveness::OtherHost:
            return "other host";
        case Liveness::Unknown:
            break;
    }
    return "unknown";
}
