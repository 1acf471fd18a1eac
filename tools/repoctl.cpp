// repoctl: the operator's command line over the repository library. Subcommands register
// themselves (RepoctlCommand.h); this file dispatches to them and prints the help.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

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
    fprintf(out,
            "usage: repoctl COMMAND [ARGUMENTS...]\n       repoctl help [COMMAND]\n\ncommands:\n");
    int width = 0;
    for (const RepoctlCommand& command : repoctlCommands()) {
        width = std::max(width, static_cast<int>(strlen(command.name)));
    }
    std::vector<const RepoctlCommand*> sorted;
    for (const RepoctlCommand& command : repoctlCommands()) sorted.push_back(&command);
    std::sort(sorted.begin(), sorted.end(), [](const RepoctlCommand* a, const RepoctlCommand* b) {
        return strcmp(a->name, b->name) < 0;
    });
    for (const RepoctlCommand* command : sorted) {
        fprintf(out, "  %-*s  %s\n", width, command->name, command->summary);
    }
    fprintf(out,
            "\nExit status: 0 success, 1 the operation answered with a failure status, 2 usage "
            "error.\nSee repoctl help COMMAND for a command's arguments, options and output.\n");
}

const RepoctlCommand* findCommand(const char* name) {
    for (const RepoctlCommand& command : repoctlCommands()) {
        if (strcmp(command.name, name) == 0) return &command;
    }
    return nullptr;
}

void printCommandHelp(const RepoctlCommand& command) {
    printf("usage: repoctl %s\n\n%s.\n", command.usage, command.summary);
    if (command.details != nullptr) printf("\n%s", command.details);
}

// repoctl help [COMMAND]
int help(int argc, char** argv) {
    if (argc == 2) {
        printHelp(stdout);
        return 0;
    }
    const RepoctlCommand* command = argc == 3 ? findCommand(argv[2]) : nullptr;
    if (command == nullptr) {
        fprintf(stderr, "repoctl help: %s\nusage: repoctl help [COMMAND]\n",
                argc == 3 ? (std::string("unknown command \"") + argv[2] + "\"").c_str()
                          : "at most one command name expected");
        return 2;
    }
    printCommandHelp(*command);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "repoctl: no command given\n");
        printHelp(stderr);
        return 2;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        return help(argc, argv);
    }
    const RepoctlCommand* command = findCommand(argv[1]);
    if (command == nullptr) {
        fprintf(stderr, "repoctl: unknown command \"%s\" (see repoctl help)\n", argv[1]);
        return 2;
    }
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0) {
            printCommandHelp(*command);
            return 0;
        }
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
