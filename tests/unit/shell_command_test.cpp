// Commands built from trusted text and quoted names: names that would leave their quotes are
// never handed to the shell.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

#include "ShellCommand.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace {

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

TEST(ShellCommand, ordinaryNamesRunInsideEitherQuotes) {
    TempTree tree;
    const std::string file = tree.path("a name with spaces & more;");
    EXPECT_EQ(ShellCommand("touch '").insideSingleQuotes(file).raw("'").run(), 0);
    EXPECT_TRUE(exists(file));

    const std::string second = tree.path("second 'quoted' file");
    EXPECT_EQ(ShellCommand("touch \"").insideDoubleQuotes(second).raw("\"").run(), 0);
    EXPECT_TRUE(exists(second));

    const ShellCommand failing("exit 3");
    EXPECT_EQ(WEXITSTATUS(failing.run()), 3);
}

TEST(ShellCommand, aSingleQuoteInASingleQuotedNameRefusesTheCommandAndRunsNothing) {
    TempTree tree;
    SyslogCapture log;
    const std::string pwned = tree.path("PWNED");
    ShellCommand command("cd '" + tree.root() + "' && echo '");
    command.insideSingleQuotes("x'; touch PWNED; '").raw("'");
    EXPECT_TRUE(command.refused());
    EXPECT_TRUE(command.text().empty());
    EXPECT_EQ(command.run(), ShellCommand::kRefusedStatus);
    EXPECT_EQ(command.capture(), "");
    EXPECT_FALSE(exists(pwned));
    EXPECT_TRUE(log.findContaining("x'; touch PWNED; '").has_value());

    command.raw("; touch PWNED").insideSingleQuotes("ok");
    EXPECT_EQ(command.text(), "") << "nothing is added after a refusal";
    command.run();
    EXPECT_FALSE(exists(pwned));
}

TEST(ShellCommand, substitutionsInADoubleQuotedNameRefuseTheCommandAndRunNothing) {
    TempTree tree;
    const std::string prefix = "cd '" + tree.root() + "' && echo \"";
    for (const char* name :
         {"$(touch PWNED)", "`touch PWNED`", "a\"; touch PWNED; \"", "back\\slash"}) {
        ShellCommand command(prefix);
        command.insideDoubleQuotes(name).raw("\"");
        EXPECT_TRUE(command.refused()) << name;
        command.run();
        EXPECT_FALSE(exists(tree.path("PWNED"))) << name;
    }
}

TEST(ShellCommand, aSubstitutionInsideSingleQuotesIsPlainTextAndRuns) {
    TempTree tree;
    ShellCommand command("cd '" + tree.root() + "' && printf %s '");
    command.insideSingleQuotes("$(touch PWNED)`touch PWNED`").raw("'");
    EXPECT_FALSE(command.refused());
    EXPECT_EQ(command.capture(), "$(touch PWNED)`touch PWNED`");
    EXPECT_FALSE(exists(tree.path("PWNED")));
}

TEST(ShellCommand, captureReturnsTheWholeOutput) {
    const std::string big(5000, 'x');
    ShellCommand command("printf %s '");
    command.insideSingleQuotes(big).raw("'; echo; echo tail");
    EXPECT_EQ(command.capture(), big + "\ntail\n");
}

}  // namespace
