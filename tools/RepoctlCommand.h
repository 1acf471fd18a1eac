#pragma once

#include <vector>

// The subcommands of repoctl. Each lives in its own source file (tools/repoctl_<area>.cpp) and
// registers itself with a static RepoctlRegistrar:
//
//   static int runHash(int argc, char** argv);
//   static RepoctlRegistrar hashCommand("hash", "hash NAME...",
//                                       "print the hashed location of each resource name",
//                                       &runHash);
//
// `run` receives the subcommand's own arguments with argv[0] being the subcommand name, and
// returns the process exit code: 0 success, 1 the operation failed, 2 bad arguments (after
// printing its usage line through repoctlUsage).
struct RepoctlCommand {
    const char* name;
    const char* usage;    // "hash NAME...", without the program name
    const char* summary;  // one line for --help
    int (*run)(int argc, char** argv);
    const char* details;  // the rest of `repoctl help NAME`: options, output, exit status; may be null
};

// Every registered command, in the order of registration. Registration happens during static
// initialisation, before main; afterwards the list is only read.
std::vector<RepoctlCommand>& repoctlCommands();

// Registers one command for the lifetime of the program. The texts must be string literals.
class RepoctlRegistrar {
  public:
    RepoctlRegistrar(const char* name, const char* usage, const char* summary,
                     int (*run)(int, char**), const char* details = nullptr) {
        repoctlCommands().push_back(RepoctlCommand{name, usage, summary, run, details});
    }
};

// Prints "usage: repoctl <usage>" of the named command to standard error and returns 2.
int repoctlUsage(const char* name);
