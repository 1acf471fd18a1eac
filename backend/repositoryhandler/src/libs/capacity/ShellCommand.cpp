#include "ShellCommand.h"

#include <sys/wait.h>

#include <cstdlib>
#include <stdexcept>

#include "KSLogger.h"
#include "KSMountPointHandler.h"

ShellCommand& ShellCommand::raw(const std::string& trusted) {
    if (!refused_) text_ += trusted;
    return *this;
}

ShellCommand& ShellCommand::insideSingleQuotes(const std::string& value) {
    return appendInside(value, "'", "holds a single quote");
}

ShellCommand& ShellCommand::insideDoubleQuotes(const std::string& value) {
    return appendInside(value, "\"$`\\",
                        "holds a double quote, a dollar sign, a backquote or a backslash");
}

ShellCommand& ShellCommand::appendInside(const std::string& value, const char* leaving,
                                         const char* why) {
    if (refused_) return *this;
    if (value.find('\0') != std::string::npos) {
        refuse(value, "holds a NUL byte");
    } else if (value.find_first_of(leaving) != std::string::npos) {
        refuse(value, why);
    } else {
        text_ += value;
    }
    return *this;
}

// The text is dropped as well, so that a refused command handed on by text() runs nothing.
void ShellCommand::refuse(const std::string& value, const char* why) {
    rh_logger.errorLog("Command refused, the name '%s' %s: %s...", value.c_str(), why,
                       text_.c_str());
    refused_ = true;
    text_.clear();
}

int ShellCommand::run() const {
    if (refused_) return kRefusedStatus;
    return system(text_.c_str());
}

// A shell that cannot be started is not an empty answer: an empty answer of the information
// callback means "not present", and the server would then create a second copy of a resource
// that exists. So the error leaves to the caller.
std::string ShellCommand::capture() const {
    if (refused_) return std::string();
    try {
        return exec(text_.c_str());
    } catch (const std::runtime_error&) {
        rh_logger.errorLog("Command could not be started: %s", text_.c_str());
        throw;
    }
}

std::string ShellCommand::describeStatus(int status) {
    if (status == -1) return "could not be started";
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
    return "ended with raw status " + std::to_string(status);
}
