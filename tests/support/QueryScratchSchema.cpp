#include "QueryScratchSchema.h"

#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "KSProperties.h"

namespace {

const char* const kTables[] = {"PATIENT", "STUDY", "SERIES", "SERIESREQUEST", "INSTANCE"};

}  // namespace

std::string sqlLiteral(const std::optional<std::string>& value) {
    if (!value) return "NULL";
    if (value->empty()) return "''";
    std::string hex = "CONVERT(X'";
    char byte[3];
    for (unsigned char c : *value) {
        snprintf(byte, sizeof byte, "%02X", c);
        hex += byte;
    }
    return hex + "' USING utf8mb4)";
}

QueryScratchSchema::QueryScratchSchema(const std::string& mappingPath)
    : prefix_(uniqueName("Q") + "_") {
    for (const char* name : kTables) admin_.exec("CREATE TABLE " + table(name) + " LIKE " + name);
    KSProperties properties;
    if (!properties.load(mappingPath.c_str()))
        throw std::runtime_error("cannot read " + mappingPath);
    KSProperties& renamed = mappingEntries_;
    for (const KSProperty& entry : properties) {
        std::istringstream words(entry.getValue());
        std::string value, word;
        while (words >> word) {
            for (const char* name : kTables)
                if (word == name) word = table(name);
            value += (value.empty() ? "" : " ") + word;
        }
        renamed.setProperty(entry.getName(), value.c_str());
    }
    mapping_ = kelp::db::QueryMapping::fromProperties(renamed);
}

void QueryScratchSchema::writeMapping(const std::string& path) const {
    if (!mappingEntries_.write(path.c_str())) throw std::runtime_error("cannot write " + path);
}

QueryScratchSchema::~QueryScratchSchema() {
    try {
        for (const char* name : kTables) admin_.exec("DROP TABLE IF EXISTS " + table(name));
    } catch (const std::exception&) {
        // The server is gone: nothing left to clean.
    }
}

std::string QueryScratchSchema::expand(const std::string& sql) const {
    std::string out = sql;
    for (const char* name : kTables) {
        const std::string marker = std::string("{") + name + "}";
        for (size_t at = out.find(marker); at != std::string::npos; at = out.find(marker, at))
            out.replace(at, marker.size(), table(name));
    }
    return out;
}

void QueryScratchSchema::exec(const std::string& sql) {
    admin_.exec(expand(sql));
}

int64_t QueryScratchSchema::insert(const std::string& name, const Values& values) {
    std::string columns, literals;
    for (const auto& value : values) {
        columns += (columns.empty() ? "" : ", ") + value.first;
        literals += (literals.empty() ? "" : ", ") + sqlLiteral(value.second);
    }
    admin_.exec("INSERT INTO " + table(name) + " (" + columns + ") VALUES (" + literals + ")");
    return admin_.number("SELECT LAST_INSERT_ID()");
}
