#pragma once

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ScopedEnv.h"
#include "TempTree.h"

// A test TASKD_HOME holding a real runjavacmd script, set in the environment for the scope.
// The script appends its arguments (one call per line, arguments separated by " | ") to the
// file "calls", prints the content of "answer" when that file exists, and exits with the
// number in "exit" (0 when missing):
//   TaskdHome taskd; taskd.answer("/some/where\n");
//   ... taskd.calls()
// Not thread-safe; create it before the test starts threads.
class TaskdHome {
  public:
    TaskdHome() : env_("TASKD_HOME", tree_.root().c_str()) {
        const std::string script = tree_.write("runjavacmd",
                                               "#!/bin/sh\n"
                                               "d=$(dirname \"$0\")\n"
                                               "line=\"\"\n"
                                               "for a in \"$@\"; do line=\"$line$a | \"; done\n"
                                               "printf '%s\\n' \"$line\" >> \"$d/calls\"\n"
                                               "[ -f \"$d/answer\" ] && cat \"$d/answer\"\n"
                                               "[ -f \"$d/exit\" ] && exit $(cat \"$d/exit\")\n"
                                               "exit 0\n");
        ::chmod(script.c_str(), 0755);
    }

    const std::string& path() const { return tree_.root(); }
    void answer(const std::string& text) const { tree_.write("answer", text); }
    void exitWith(int code) const { tree_.write("exit", std::to_string(code)); }

    // Every recorded call, in order.
    std::vector<std::string> calls() const {
        std::vector<std::string> lines;
        std::ifstream in(tree_.path("calls"));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

  private:
    TempTree tree_;
    ScopedEnv env_;
};
