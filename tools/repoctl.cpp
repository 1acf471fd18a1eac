// repoctl: the operator's command line over the repository library. Subcommands register
// themselves (RepoctlCommand.h); this file dispatches to them and prints the help.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "KSException.h"
#include "RepoctlCommand.h"

std::vector<RepoctlCommand>& repoctlCommands() {
    static std::vector<RepoctlCommand> commands;
    return commands;
}

int repoctlUsage(const char* name) {
    for (const RepoctlCommand& command : repoctlCommands()) {
        if (strcmp(command.name, name) == 0) fprintf(stderr, "usage: repoctl %s\n", command.usage);
    }
    return 2;
}

namespace {

void printHelp(FILE* out) {
    fprintf(out, "usage: repoctl COMMAND [ARGUMENTS...]\n\ncommands:\n");
    int width = 0;
    for (const RepoctlCommand& command : repoctlCommands()) {
        width = std::max(width, static_cast<int>(strlen(command.usage)));
    }
    for (const RepoctlCommand& command : repoctlCommands()) {
        fprintf(out, "  %-*s  %s\n", width, command.usage, command.summary);
    }
}

const RepoctlCommand* findCommand(const char* name) {
    for (const RepoctlCommand& command : repoctlCommands()) {
        if (strcmp(command.name, name) == 0) return &command;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        printHelp(stderr);
        return 2;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        printHelp(stdout);
        return 0;
    }
    const RepoctlCommand* command = findCommand(argv[1]);
    if (command == nullptr) {
        fprintf(stderr, "repoctl: unknown command \"%s\" (see repoctl --help)\n", argv[1]);
        return 2;
    }
    try {
        return command->run(argc - 1, argv + 1);
    } catch (const KSException& e) {
        fprintf(stderr, "repoctl %s: %s\n", command->name, e.toString().c_str());
    } catch (const std::exception& e) {
        fprintf(stderr, "repoctl %s: %s\n", command->name, e.what());
    }
    return 1;
}
