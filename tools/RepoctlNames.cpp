#include "RepoctlNames.h"

#include "JsonWriter.h"
#include "KSStatus.h"

namespace {

struct BitName {
    int bit;
    const char* name;
};

const BitName kMountBits[] = {{MOUNT_REMIND, "remind"}, {MOUNT_WARN, "warn"},
                              {MOUNT_WARN2, "warn2"},   {MOUNT_WARN3, "warn3"},
                              {MOUNT_SWITCH, "switch"}, {MOUNT_FULL, "full"},
                              {MOUNT_CLEAN, "clean"},   {MOUNT_MOVE, "move"},
                              {MOUNT_DEAD, "dead"},     {MOUNT_HARDFULL, "hardfull"}};

// On the repository the same bits read differently.
const BitName kRepositoryBits[] = {
    {REPOSITORY_MISSING, "missing"}, {REPOSITORY_INCOMPLETE, "incomplete"},
    {MOUNT_CLEAN, "full"},           {REPOSITORY_CANNOTMOVE, "cannotmove"},
    {MOUNT_SWITCH, "switch"},        {MOUNT_WARN3, "warn3"},
    {MOUNT_WARN2, "warn2"},          {MOUNT_WARN, "warn"},
    {MOUNT_REMIND, "remind"}};

template <size_t N>
std::vector<std::string> namesOf(int status, const BitName (&names)[N]) {
    std::vector<std::string> set;
    for (const BitName& b : names) {
        if (status & b.bit) set.push_back(b.name);
    }
    return set;
}

}  // namespace

std::vector<std::string> statusBitNames(int status, StatusKind kind) {
    return kind == StatusKind::kMount ? namesOf(status, kMountBits)
                                      : namesOf(status, kRepositoryBits);
}

std::string statusText(int status, StatusKind kind) {
    std::string text;
    for (const std::string& name : statusBitNames(status, kind))
        text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "ok" : text;
}

void writeStatusJson(JsonWriter& json, int status, StatusKind kind) {
    json.beginObject().field("value", status).key("names").beginArray();
    for (const std::string& name : statusBitNames(status, kind)) json.value(name);
    json.endArray().endObject();
}
