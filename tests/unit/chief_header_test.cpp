// A C++ caller that includes only the chief header (with the three source folders on the
// include path) reaches every function of the C surface, with the prototypes of
// CSurfaceList.h.

#include "KSRepositoryHandler.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "CSurfaceList.h"

namespace {

struct SurfaceEntry {
    const char* name;
    void (*address)();
};

#define RH_TAKE_ADDRESS(name, type) \
    {#name, reinterpret_cast<void (*)()>(static_cast<std::add_pointer_t<type>>(&name))},
const SurfaceEntry kSurface[] = {RH_C_SURFACE(RH_TAKE_ADDRESS)};
#undef RH_TAKE_ADDRESS

}  // namespace

TEST(ChiefHeader, declaresEveryExportedFunctionOfTheCSurface) {
    for (const SurfaceEntry& entry : kSurface) EXPECT_NE(entry.address, nullptr) << entry.name;
    char* hashed = convertToHashed_("study1/", false);
    EXPECT_STREQ(hashed, "SH/D_/Z4/study1/");
    release(hashed);
}
