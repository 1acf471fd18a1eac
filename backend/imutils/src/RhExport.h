#pragma once

// Marks what the shared library exports. The library is built with hidden visibility, so only
// the C surface, the Java natives and the public C++ classes callers use carry this mark.
#define RH_EXPORT __attribute__((visibility("default")))
