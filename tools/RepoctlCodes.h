#pragma once

#include <string>

class JsonWriter;

// Names of the resource status codes (KSStatus.h) that repoctl prints beside their numbers.
// A lookup answers one code; a removal ORs the codes of its single removals together.

// "found", "dirty", "conflict", "missing", "erroneous", "lockFailed", "notPresent", or
// "unknown" for any other value.
const char* lookupStatusName(int status);

// The names of the bits set in a removal result joined by spaces, "removed" for 0.
std::string removalStatusText(int status);

// {"value": status, "names": [lookupStatusName(status)]} as the next value of `json`.
void writeLookupStatusJson(JsonWriter& json, int status);
// {"value": status, "names": [one name per bit set]} (empty for 0) as the next value.
void writeRemovalStatusJson(JsonWriter& json, int status);
