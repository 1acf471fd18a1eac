// repositorypart.cfg, read by a mount handler. It must load without a crash or undefined
// behaviour whatever the file holds, and two handlers reading the same file must agree (no
// uninitialised or leftover state decides a setting).
//
// Inputs that name a copy plug-in ("moveHere") are skipped: the reader hands that value to
// dlopen, and a fuzzer must not load arbitrary libraries of the machine into itself.

#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzScratch.h"
#include "KSMountPointHandler.h"

namespace {

std::string describe(KSMountPointHandler& mount) {
    const KSMountPointHandler::Config& c = mount.config();
    std::string text;
    for (double v : {c.switchLimit, c.fullLimit, c.cleanLimit, c.moveLimit, c.hardFullLimit,
                     c.nightVolumemul, c.nightLowerPercent, c.deleteOld}) {
        text += std::to_string(v) + "|";
    }
    for (bool v : {c.fast, c.nightManagement, c.countSize}) text += v ? "1|" : "0|";
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratch scratch;
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find("moveHere") != std::string::npos) return -1;
    const std::string dir = scratch.path("mount");
    const std::string file = dir + "/repositorypart.cfg";
    static bool made = system(("mkdir -p '" + dir + "'").c_str()) == 0;
    FUZZ_CHECK(made, "cannot make %s", dir.c_str());

    FuzzScratch::write(file, data, size);
    KSMountPointHandler fresh(dir, nullptr);
    FUZZ_CHECK(fresh.parseConfigFile() == 0, "parseConfigFile failed");
    const std::string expected = describe(fresh);

    KSMountPointHandler again(dir, nullptr);
    FUZZ_CHECK(again.parseConfigFile() == 0, "parseConfigFile failed for a second handler");
    FUZZ_CHECK(describe(again) == expected, "two fresh reads differ: %s / %s",
               describe(again).c_str(), expected.c_str());
    return 0;
}
