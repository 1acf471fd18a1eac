#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

// The arguments of one repoctl command: long GNU-style options (before or after the positional
// arguments, "--name VALUE" or "--name=VALUE"; "--" ends the options) and the positional
// arguments in order.
//
//   RepoctlArgs args(argc, argv, {"--json"}, {"--older-than"});
//   if (!args.ok() || args.positional().size() != 1)
//       return repoctlUsageError(argv[0], args.ok() ? "one repository expected" : args.error());
//
// Only the options named are accepted; anything else that starts with "--" is an error.
// Not thread-safe; one owner.
class RepoctlArgs {
  public:
    // argv[0] is the command name. `flags` take no value, `valued` take one.
    RepoctlArgs(int argc, char** argv, const std::vector<std::string>& flags,
                const std::vector<std::string>& valued = {});

    // False when an option was unknown or lacked its value; error() then says which.
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }

    bool has(const std::string& option) const { return given_.count(option) != 0; }
    // The value of a valued option; null when it was not given.
    const char* value(const std::string& option) const;
    const std::vector<std::string>& positional() const { return positional_; }

  private:
    std::map<std::string, std::string> given_;
    std::vector<std::string> positional_;
    std::string error_;
};

// Prints "repoctl NAME: WHAT" and the command's usage line to standard error; returns 2.
int repoctlUsageError(const char* name, const std::string& what);

// A duration: "90s", "15m", "2h", "7d", or a bare number of seconds. False for anything else
// (negative, empty, another unit, overflow).
bool parseDuration(const std::string& text, long long& seconds);

// True when `path` is a directory; otherwise prints
// "repoctl COMMAND: no repository directory "PATH"" and answers false.
bool isRepositoryDirectory(const char* command, const std::string& path);

// A progress line for runWithProgress where the library counts nothing: "WHAT  12.3 s" with the
// time since this call.
std::function<std::string()> elapsedLine(const std::string& what);
