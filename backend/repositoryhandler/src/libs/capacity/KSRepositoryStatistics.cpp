// Move statistics of night-managed mounts and the administrators' warnings of the maintenance.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "KSClock.h"
#include "KSException.h"
#include "KSLogger.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "KSStateFile.h"
#include "NightProperties.h"
#include "ShellCommand.h"

namespace {

constexpr time_t kSecondsPerDay = 86400;

std::string markerFile(const std::string& owner, const char* subject) {
    const char* tmp = getenv("TMP");
    std::unique_ptr<char[]> id(toResourceID(owner.c_str(), subject));
    return std::string(tmp != nullptr ? tmp : "/tmp") + "/" + (id ? id.get() : "");
}

// At most one message a day per subject: the marker's later access or modification time
// tells when the last one went out; its content does not matter.
bool sentWithinADay(const std::string& marker) {
    struct stat st;
    if (stat(marker.c_str(), &st) != 0) return false;
    time_t last = st.st_atime > st.st_mtime ? st.st_atime : st.st_mtime;
    return last + kSecondsPerDay >= KSClock::now();
}

void renewMarker(const std::string& marker) {
    int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        rh_logger.errorLog("Could not renew the warning marker %s", marker.c_str());
        return;
    }
    close(fd);
}

// The whole command is built in a std::string, so a long repository or mount path cannot
// overflow anything; a message that would leave its quotes is refused by ShellCommand.
void sendAdminMessage(const std::string& message) {
    const char* home = getenv("KSADMIN_HOME");
    ShellCommand command(std::string(home != nullptr ? home : ""));
    command.raw("/sendmessage.sh -admins -important -message \"")
        .insideDoubleQuotes(message)
        .raw("\" ");
    command.run();
}

}  // namespace

void KSRepositoryHandler::writeCalcData(bool /*verbose*/, KSMountPointHandler* mount,
                                        double usedBefore) {
    std::string today = NightProperties::dateText(KSClock::now());
    std::string file = NightProperties::statisticsFile(mount->path());
    if (file.empty()) {
        rh_logger.errorLog("VAR is not set, no move statistics for %s", mount->path().c_str());
        return;
    }
    KSProperties statistics;
    statistics.load(file.c_str());

    double previous = 0.0;
    double usedNow;
    const char* recorded = statistics.getProperty(today.c_str());
    if (recorded != nullptr) {
        previous = strtod(recorded, nullptr);
        usedNow = mount->getUsedPercentage();
        // Later runs of a day only add what they freed.
        if (!(usedBefore > usedNow)) return;
    } else {
        usedNow = mount->getUsedPercentage();
    }
    double freed = usedBefore - usedNow + previous;
    rh_logger.infoLog("Actual moved percent (for night management): %f", freed);
    std::ostringstream value;
    value << freed;
    statistics.setProperty(today.c_str(), value.str().c_str());
    if (KSStateFile::replace(file, statistics.text()) != KSStateFile::Result::kReplaced)
        rh_logger.errorLog("Could not write move statistics %s: %s", file.c_str(), strerror(errno));
}

void KSRepositoryHandler::warnMoveTimeWarning(const char* action, const time_t* /*resourceTime*/) {
    rh_logger.infoLog(
        "CheckOverload: Last access/modification time of the resource is in the warnmoveTime "
        "range (%d sec)",
        static_cast<int>(settings_.warnmoveTime));
    std::string marker = markerFile(path_, "LastWarnMessage");
    if (sentWithinADay(marker)) return;
    sendAdminMessage(std::string("Resources ") + action + " from " + path_ +
                     " were more recent than the warnmoveTime threshold. The repository size "
                     "might be too small.");
    renewMarker(marker);
}

void KSRepositoryHandler::moveTimeWarning(KSMountPointHandler* mount, int days) {
    int configuredDays = static_cast<int>(settings_.moveTime / kSecondsPerDay);
    rh_logger.infoLog(
        "CheckOverload: moveTime: %d is not enough for mount %s, using %d days "
        "instead.",
        configuredDays, mount->path().c_str(), days);
    std::string marker = markerFile(mount->path(), "MoveTimeMessage");
    if (sentWithinADay(marker)) return;
    sendAdminMessage("moveTime: " + std::to_string(configuredDays) + " is not enough for mount " +
                     mount->path() + ", using " + std::to_string(days) + " days instead.");
    renewMarker(marker);
}
