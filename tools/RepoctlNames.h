#pragma once

#include <string>
#include <vector>

class JsonWriter;

// Names of the status bits that repoctl prints next to their numbers. A mount's status and a
// repository's status share bit values but not meanings (see KSStatus.h), hence two sets.
enum class StatusKind { kMount, kRepository };

// The names of the bits set in `status`, lowest bit first; empty when none is set.
std::vector<std::string> statusBitNames(int status, StatusKind kind);

// The names joined by spaces, or "ok" when no bit is set: "remind warn".
std::string statusText(int status, StatusKind kind);

// Writes {"value": status, "names": [...]} as the next value of `json`.
void writeStatusJson(JsonWriter& json, int status, StatusKind kind);
