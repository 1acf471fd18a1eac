// The C surface as a C++ caller sees it: repohandler.h alone compiles as C++, declares every
// function with the prototype listed in CSurfaceList.h, and librepohandler.so exports exactly
// those functions, unmangled (with C linkage).

#include "repohandler.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>

#include "CSurfaceList.h"

#define RH_CHECK_PROTOTYPE(name, type) \
    static_assert(std::is_same_v<decltype(name), type>, #name " is not declared as " #type);
RH_C_SURFACE(RH_CHECK_PROTOTYPE)
#undef RH_CHECK_PROTOTYPE

namespace {

// Functions that `library` exports under a name that is not C++-mangled, other than the JNI
// entry points of the Java binding.
std::set<std::string> exportedCFunctions(const std::string& library) {
    const std::string command = "nm -D --defined-only '" + library + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::set<std::string> names;
    if (!pipe) return names;
    char line[4096];
    while (fgets(line, sizeof line, pipe.get()) != nullptr) {
        std::istringstream fields(line);
        std::string address, type, name;
        if (!(fields >> address >> type >> name) || type != "T") continue;
        if (name.rfind("_Z", 0) == 0 || name.rfind("Java_", 0) == 0 || name.rfind("JNI_", 0) == 0)
            continue;
        names.insert(name);
    }
    return names;
}

}  // namespace

TEST(CSurface, theHeaderDeclaresExactlyTheFunctionsTheLibraryExportsWithCLinkage) {
    const std::set<std::string> exported =
        exportedCFunctions(RH_TEST_BINARY_DIR "/librepohandler.so");
    ASSERT_FALSE(exported.empty()) << "nm could not read " RH_TEST_BINARY_DIR "/librepohandler.so";
#define RH_NAME(name, type) #name,
    const std::set<std::string> declared = {RH_C_SURFACE(RH_NAME)};
#undef RH_NAME
    for (const std::string& name : declared)
        EXPECT_EQ(exported.count(name), 1u) << name << " is not exported with C linkage";
    for (const std::string& name : exported)
        EXPECT_EQ(declared.count(name), 1u) << name << " is exported but not in CSurfaceList.h";
}
