#pragma once

#include <string>
#include <utility>
#include <vector>

// What one run of the operator's command line gave.
struct RepoctlRun {
    int code = -1;    // exit status; 128 + signal when killed; -1 when it could not run
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs the repoctl built next to the tests with `arguments` (no shell: each element is one
// argument), with `environment` added to (or replacing in) the test's own environment, and
// standard input from /dev/null. Reads both outputs whole.
RepoctlRun runRepoctl(const std::vector<std::string>& arguments,
                      const std::vector<std::pair<std::string, std::string>>& environment = {});
