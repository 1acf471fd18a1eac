// The check that decides which names may reach the shell. A command is built as the library
// builds its copy and callback commands, one name between single quotes and one between double
// quotes, and when it is not refused it is run by the real shell: the shell must hand both
// names to printf unchanged (no word splitting, no expansion, no second command). A refusal
// must come only from a character that would end its quotes, or from a NUL.

#include <unistd.h>

#include <cstdint>
#include <string>

#include "FuzzScratch.h"
#include "ShellCommand.h"

namespace {

bool mayStayInside(const std::string& value, const char* leaving) {
    return value.find('\0') == std::string::npos &&
           value.find_first_of(leaving) == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 512) return -1;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = input.find('\x01');
    const std::string single = input.substr(0, split);
    const std::string dbl = split == std::string::npos ? "" : input.substr(split + 1);

    ShellCommand command("printf '%s|' '");
    command.insideSingleQuotes(single).raw("' \"").insideDoubleQuotes(dbl).raw("\"");
    const bool allowed = mayStayInside(single, "'") && mayStayInside(dbl, "\"$`\\");
    FUZZ_CHECK(command.refused() != allowed, "refused=%d for an input that %s", command.refused(),
               allowed ? "stays inside its quotes" : "would leave its quotes");
    if (command.refused()) {
        FUZZ_CHECK(command.text().empty(), "a refused command keeps its text");
        FUZZ_CHECK(command.run() == ShellCommand::kRefusedStatus, "a refused command ran");
        return 0;
    }
    // The output always holds the two bars; an empty one is a shell that could not be started
    // (a busy machine) or one that stopped before printf (a name that broke the quoting). Only
    // the first goes away when tried again.
    std::string output;
    for (int attempt = 0; attempt < 5 && output.empty(); ++attempt) {
        if (attempt > 0) usleep(200 * 1000);
        output = command.capture();
    }
    const std::string expected = single + "|" + dbl + "|";
    FUZZ_CHECK(output == expected, "the shell printed '%s' for '%s'", output.c_str(),
               expected.c_str());
    return 0;
}
