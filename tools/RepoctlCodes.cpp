#include "RepoctlCodes.h"

#include <vector>

#include "JsonWriter.h"
#include "KSStatus.h"

namespace {

struct CodeName {
    int code;
    const char* name;
};

const CodeName kCodes[] = {
    {RESOURCE_STATUS_FOUND, "found"},           {RESOURCE_STATUS_DIRTY, "dirty"},
    {RESOURCE_STATUS_CONFLICT, "conflict"},     {RESOURCE_STATUS_MISSING, "missing"},
    {RESOURCE_STATUS_ERRONEOUS, "erroneous"},   {RESOURCE_STATUS_LOCK_FAILED, "lockFailed"},
    {RESOURCE_STATUS_NOT_PRESENT, "notPresent"}};

// 36 (not present) never occurs in removal results, so every bit there has one name.
std::vector<std::string> removalBits(int status) {
    std::vector<std::string> names;
    for (const CodeName& c : kCodes) {
        if (c.code != 0 && c.code != RESOURCE_STATUS_NOT_PRESENT && (status & c.code))
            names.push_back(c.name);
    }
    return names;
}

}  // namespace

const char* lookupStatusName(int status) {
    for (const CodeName& c : kCodes) {
        if (c.code == status) return c.name;
    }
    return "unknown";
}

std::string removalStatusText(int status) {
    if (status == 0) return "removed";
    std::string text;
    for (const std::string& name : removalBits(status)) text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "unknown" : text;
}

void writeLookupStatusJson(JsonWriter& json, int status) {
    json.beginObject().field("value", status).key("names").beginArray();
    json.value(lookupStatusName(status)).endArray().endObject();
}

void writeRemovalStatusJson(JsonWriter& json, int status) {
    json.beginObject().field("value", status).key("names").beginArray();
    for (const std::string& name : removalBits(status)) json.value(name);
    json.endArray().endObject();
}
