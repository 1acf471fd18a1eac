#pragma once

// Every external command of the library is built and run here. Texts from configuration and
// the environment are trusted; names and paths are placed inside quotes without escaping, and a
// name that would leave its quotes (a single quote inside single quotes; a double quote, "$",
// a backquote or a backslash inside double quotes) makes the whole command refused: it is never
// handed to the shell, an error line is logged, and running it reports a failure status.

#include <string>

class ShellCommand {
  public:
    // Raw status that a refused command reports (as a shell reports a command it cannot run).
    static constexpr int kRefusedStatus = 127 << 8;

    ShellCommand() = default;
    explicit ShellCommand(std::string trusted) : text_(std::move(trusted)) {}

    // Appends trusted text as it stands.
    ShellCommand& raw(const std::string& trusted);
    // Appends `value`, which the trusted text around it places between single quotes.
    ShellCommand& insideSingleQuotes(const std::string& value);
    // Appends `value`, which the trusted text around it places between double quotes.
    ShellCommand& insideDoubleQuotes(const std::string& value);

    bool refused() const { return refused_; }
    // The command built so far; empty once refused, so a refused command run by text() does
    // nothing.
    const std::string& text() const { return text_; }

    // system(): the raw wait status; kRefusedStatus when refused.
    int run() const;
    // popen(): the command's whole standard output; empty when refused. Throws
    // std::runtime_error("popen() failed!") (logged) when the shell cannot be started, e.g.
    // when the process is out of file descriptors.
    std::string capture() const;

    // A raw status of run() in words: "exited with status 1", "was killed by signal 9", "could
    // not be started".
    static std::string describeStatus(int status);

  private:
    // Appends value unless it holds a NUL or one of the characters `leaving` (which would end
    // its quotes); otherwise refuses the command for the reason `why`.
    ShellCommand& appendInside(const std::string& value, const char* leaving, const char* why);
    void refuse(const std::string& value, const char* why);

    std::string text_;
    bool refused_ = false;
};
