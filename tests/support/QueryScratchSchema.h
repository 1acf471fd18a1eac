#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "DbTestEnv.h"
#include "KSProperties.h"
#include "QueryMapping.h"

// A private copy of the query builder's example tables (PATIENT, STUDY, SERIES, SERIESREQUEST,
// INSTANCE of db/schema.sql), under names unique to this test, with the example mapping
// pointed at them, so that tests running in parallel never see each other's rows. The tables
// are dropped when the object goes, even when the test fails.
class QueryScratchSchema {
  public:
    // mappingPath: the example mapping, db/query-mapping.cfg.
    explicit QueryScratchSchema(const std::string& mappingPath);
    ~QueryScratchSchema();
    QueryScratchSchema(const QueryScratchSchema&) = delete;
    QueryScratchSchema& operator=(const QueryScratchSchema&) = delete;

    const kelp::db::QueryMapping& mapping() const { return mapping_; }
    // Writes the mapping of the private tables as a mapping file.
    void writeMapping(const std::string& path) const;
    // The private name of an example table ("STUDY").
    std::string table(const std::string& name) const { return prefix_ + name; }

    using Values = std::map<std::string, std::optional<std::string>>;
    // Inserts one row of the named example table with the given columns (no value: NULL) and
    // returns its AUTO_INCREMENT key. Values go to the server as hexadecimal literals, so no
    // quoting is involved; dates and times in the server's text form ("2024-01-31").
    int64_t insert(const std::string& name, const Values& values);
    // Runs statements on the private tables: every {NAME} is replaced by table(NAME).
    void exec(const std::string& sql);
    std::string expand(const std::string& sql) const;

    DbAdmin& admin() { return admin_; }

  private:
    DbAdmin admin_;
    std::string prefix_;
    KSProperties mappingEntries_;
    kelp::db::QueryMapping mapping_;
};

// SQL text of a value: NULL, or a hexadecimal literal read as utf8mb4.
std::string sqlLiteral(const std::optional<std::string>& value);
