#include "RepoctlRun.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

std::string repoctlBinary() {
    // repoctl is built at the top of the build tree; RH_REPOCTL names another one.
    const char* explicitPath = getenv("RH_REPOCTL");
    if (explicitPath != nullptr) return explicitPath;
    return std::string(RH_BUILD_DIR) + "/repoctl";
}

void readBoth(int outFd, int errFd, RepoctlRun& run) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* targets[2] = {&run.out, &run.err};
    int open = 2;
    char buffer[4096];
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                targets[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open;
            }
        }
    }
}

}  // namespace

RepoctlRun runRepoctl(const std::vector<std::string>& arguments,
                      const std::vector<std::pair<std::string, std::string>>& environment) {
    RepoctlRun run;
    const std::string binary = repoctlBinary();
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return run;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]), close(out[1]);
        return run;
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        if (null >= 0) dup2(null, STDIN_FILENO);
        for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
        std::vector<char*> argv{const_cast<char*>(binary.c_str())};
        for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (child > 0) readBoth(out[0], err[0], run);
    close(out[0]);
    close(err[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}
